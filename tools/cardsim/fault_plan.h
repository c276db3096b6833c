#ifndef TALP_TOOLS_CARDSIM_FAULT_PLAN_H_
#define TALP_TOOLS_CARDSIM_FAULT_PLAN_H_

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "cardsim/bytes.h"
#include "cardsim/line_output.h"

// Bytes that leave together, the given time after the request came.
struct PIECE {
  std::chrono::milliseconds delay;
  BYTES bytes;
};
using PIECES = std::vector<PIECE>;

// Puts replies on the wire, corrupted by the faults that wait for them.
class FAULT_PLAN {
 public:
  explicit FAULT_PLAN(LINE_OUTPUT* out) : out_(out) {}

  // Adds a fault from the words NAME[=VALUE] [COUNT|forever] [on REQUEST], or takes all back for
  // "off". There must be a word. Returns why it cannot, or an empty text.
  std::string Command(const WORDS& words);

  // The reply as it goes out, its length byte with it: one piece at once, or what the oldest
  // fault that waits for a reply to this request makes of it. A fault that has corrupted its last
  // reply leaves, and "fault NAME done" is printed.
  PIECES Corrupt(const BYTES& request, const BYTES& reply);

  // Prints a line for each waiting fault.
  void Show() const;

 private:
  // More replies than any bus gives.
  static constexpr auto kForever = std::numeric_limits<std::uint64_t>::max();

  struct RULE {
    std::string command;  // as typed
    const char* name;
    PIECES (*corrupt)(const BYTES& payload, unsigned value);
    unsigned value;
    unsigned char request;  // whose replies are corrupted, 0 for any
    std::uint64_t repliesLeft;
  };

  // Takes [COUNT|forever] [on REQUEST]; false when the words are something else.
  static bool ParseRest(WORDS words, RULE* rule);

  LINE_OUTPUT* const out_;
  std::vector<RULE> rules_;  // oldest first
};

#endif  // TALP_TOOLS_CARDSIM_FAULT_PLAN_H_

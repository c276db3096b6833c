#ifndef CARDSIM_FAULT_PLAN_H
#define CARDSIM_FAULT_PLAN_H

#include <string>
#include <vector>

#include "cardsim/bytes.h"
#include "cardsim/card_bus.h"

namespace cardsim {

// Bytes that leave together, the given time after the request came.
struct PIECE {
  int delayMs;
  BYTES bytes;
};
using PIECES = std::vector<PIECE>;

struct FAULT;

// Puts replies on the wire, spoilt by the faults that wait for them.
class FAULT_PLAN {
 public:
  // Adds a waiting fault from the words after "fault": NAME [N|forever] [ARG] [on REQUEST], or
  // takes all back for "off". Returns why it cannot, or an empty text.
  std::string Command(const WORDS& words);

  // The reply as it goes out, its length byte with it: one piece at once, or what the oldest
  // fault that waits for this kind of request makes of it. A fault that has spoilt its last reply
  // leaves and appends the line "fault NAME done".
  PIECES Spoil(const ANSWER& answer, LINES* lines);

  // One line for each waiting fault.
  void Show(LINES* lines) const;

 private:
  struct RULE {
    const FAULT* fault;
    int repliesLeft;  // kForever: no end
    int argument;
    unsigned requests;  // set of REQUEST bits
  };
  static constexpr int kForever = -1;

  // Reads [N|forever] [ARG] into the rule; false when they do not suit its fault.
  static bool TakeCountAndArgument(const WORDS& words, RULE* rule);

  std::vector<RULE> rules_;  // oldest first
};

// The faults with their arguments, one a line.
std::string FaultHelp();

}  // namespace cardsim

#endif

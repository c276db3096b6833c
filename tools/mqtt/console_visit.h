#ifndef TALP_TOOLS_MQTT_CONSOLE_VISIT_H_
#define TALP_TOOLS_MQTT_CONSOLE_VISIT_H_

#include <bitset>
#include <optional>
#include <string>
#include <vector>

#include "master/perifcard.h"

namespace mqtt {

// One visit to talp's console: asks which cards there are, which of them are polled, and has the
// last input states sent to the IO port. Knows no descriptor and no clock. It parses untrusted
// input.
class CONSOLE_VISIT {
 public:
  enum class STATE { kListing, kPolls, kInputs, kDone, kBroken };

  // The command with which it begins.
  static std::string FirstCommand() { return "DISCOVER"; }

  // Takes a line of the console. Returns the next command, or nothing.
  std::string Take(const std::string& line);

  STATE State() const { return state_; }

  // Names of kinds by address, when the list is whole: from kPolls on.
  const std::vector<std::string>& Kinds() const { return kinds_; }

  // Cards that are polled; from kInputs on.
  const std::bitset<kAddressCount>& Polled() const { return polled_; }

 private:
  std::string TakeKind(const std::string& line);
  std::string TakePoll(const std::string& line);
  std::string NextInput();

  STATE state_ = STATE::kListing;
  bool isListing_ = false;  // the heading of the list has come
  std::vector<std::string> kinds_;
  std::optional<bool> pollsAny_;
  std::bitset<kAddressCount> polled_;
  bool isAnswered_ = false;  // the prompt is still to come
  int next_ = 0;             // input block to ask for, of all cards
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_CONSOLE_VISIT_H_

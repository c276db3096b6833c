#ifndef TALP_TOOLS_MQTT_TRANSLATE_H_
#define TALP_TOOLS_MQTT_TRANSLATE_H_

#include <array>
#include <bitset>
#include <optional>
#include <string>
#include <vector>

#include "master/perifcard.h"

namespace mqtt {

using LINES = std::vector<std::string>;

constexpr std::size_t kMostText = 1024;  // of a message: longer than any that makes sense

// What is known of the card at one address.
struct CARD {
  const CARD_KIND* kind = nullptr;                               // null: not known
  std::array<std::optional<unsigned char>, kBlockCount> blocks;  // as reported, or as sent
  std::bitset<kBlockCount> unconfirmed;  // inputs that may have changed unseen
  std::bitset<kBlockCount> asked;        // inputs whose last state will come, changed or not
  bool isForgotten = false;              // talp may not have the outputs any more

  bool Is(KIND_CODE code) const { return kind != nullptr && kind->code == code; }

  // Its outputs may be sent again: nothing moves but what was told to be there.
  bool IsRestorable() const { return Is(kKindDigitalOutput) || Is(kKindServo); }
};

using CARDS = std::array<CARD, kAddressCount>;

// The lines, without separators, that a message asks for. `path` is the topic below that of the
// node. Each line is one that talp takes from the card of the kind that is known (of any kind where
// none is) and holds no `separator`, and all of them fit one message to the IO port. Throws a
// std::exception with the reason when the message is refused.
LINES Translate(const std::string& path, const std::string& payload, const CARDS& cards,
                const std::string& separator);

// The kind of that name; null if there is none.
const CARD_KIND* KindNamed(const std::string& name);

// Throws a std::invalid_argument with `reason` unless `holds`.
void Require(bool holds, const std::string& reason);

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_TRANSLATE_H_

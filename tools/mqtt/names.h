#ifndef TALP_TOOLS_MQTT_NAMES_H_
#define TALP_TOOLS_MQTT_NAMES_H_

#include <string>
#include <string_view>

namespace mqtt {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

// What a board is called at the broker, and in Home Assistant.
struct NAMES {
  // `nodeName` is one level of a topic; an empty `prefix` switches discovery messages off.
  NAMES(const std::string& topic, std::string nodeName, std::string prefix);

  // The topic of a card's kind, or of a block or bit of it without `tail`. With a slash at its end.
  std::string CardTopic(int address) const;

  const std::string node;
  const std::string homeAssistant;  // prefix of the discovery messages
  const std::string root;           // of the node's topics, with a slash at its end
  const std::string clientId;       // of this node and no other
  // Part of Home Assistant's identifiers: topic and node in letters, digits and '_'. Nodes that
  // differ in other characters only have the same.
  const std::string id;
  // The same as part of its topics, where each node has its own.
  const std::string object;
};

// What a topic below the node's root names. Parts that it does not name are -1.
struct PLACE {
  int address = -1;
  int block = -1;    // 0..7
  int bit = -1;      // 0..7
  std::string tail;  // what follows, without a slash before it
};

// Of "card/5/1/2/set" address 5, block 1, bit 2 and "set". Anything else is a tail.
PLACE PlaceOf(const std::string& path);

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_NAMES_H_

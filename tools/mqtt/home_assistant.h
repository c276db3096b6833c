#ifndef TALP_TOOLS_MQTT_HOME_ASSISTANT_H_
#define TALP_TOOLS_MQTT_HOME_ASSISTANT_H_

#include <string>
#include <vector>

#include "master/card_kinds.h"
#include "mqtt/names.h"

// The discovery messages by which Home Assistant finds a board and its cards, one a device. Not to
// be called with an empty prefix.
namespace mqtt {

// The device of the board; in DiscoveryTopic() only.
constexpr int kBoard = -1;

// Of the device at `address`.
std::string DiscoveryTopic(const NAMES& names, int address);

std::string BoardMessage(const NAMES& names);

// Empty for a card that has no entity.
std::string CardMessage(const NAMES& names, int address, const CARD_KIND& kind);

// Whether it is a topic of a discovery message of one entity, as earlier releases sent them.
bool IsEntityTopic(const NAMES& names, const std::string& topic);

// Whether it is one of these, or of the topics of the devices.
bool IsDiscoveryTopic(const NAMES& names, const std::string& topic);

// Tells Home Assistant to keep what its user has set up for the entity until another message has
// it.
constexpr char kMigration[] = R"({"migrate_discovery": true})";

// Of all topics above, at most 8 a packet.
std::vector<std::vector<std::string>> DiscoveryFilters(const NAMES& names);

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_HOME_ASSISTANT_H_

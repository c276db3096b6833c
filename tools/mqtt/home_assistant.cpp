#include "mqtt/home_assistant.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "master/perifcard.h"

namespace mqtt {

namespace {

using nlohmann::json;

// What a card and its blocks, or of digital ones their bits, are to Home Assistant.
struct DEVICE_KIND {
  KIND_CODE code;
  const char* model;
  const char* platform;
  const char* entity;  // its name; the number of block and bit follows where there are several
  bool isBits;
};

constexpr DEVICE_KIND kDeviceKinds[] = {
    {kKindDigitalInput, "16-channel digital input", "binary_sensor", "Input", true},
    {kKindDigitalOutput, "16-channel digital output", "switch", "Output", true},
    {kKindServo, "6-channel servo controller", "number", "Servo", false},
    {kKindMotor, "3-channel DC motor controller", "number", "Motor", false},
    {kKindAnalogueInput, "6-channel analogue input", "sensor", "Channel", false},
    {kKindKeypad, "Keypad and rotary encoder", "sensor", "Keys", false},
    {kKindLcd, "Alphanumeric LCD", "text", "Text", false},
};

constexpr int kMotorControlBlock = 3;

std::string Digit(int number) { return {kHexDigits[static_cast<std::size_t>(number)]}; }

// The display is cleared first: what was there before may be longer. talp takes 31 bytes.
json LcdEntity(const NAMES& names, int address) {
  return {{"platform", "text"},
          {"unique_id", names.id + "_card" + Digit(address) + "_text"},
          {"name", "Text"},
          {"command_topic", names.CardTopic(address) + "lcd/set"},
          {"command_template", R"({"clear": true, "text": {{ value | tojson }}})"},
          {"max", 31},
          {"pattern", "[ -~]*"}};
}

// The entity of a block or, from 0 on, a bit of it.
json BlockEntity(const NAMES& names, int address, const CARD_KIND& kind, const DEVICE_KIND& device,
                 int block, int bit) {
  const std::string bitPart = bit < 0 ? "" : "_" + Digit(bit);
  const bool isOnly = std::max(kind.inputBlocks, kind.outputBlocks) == 1;
  const std::string number = " " + Digit(block) + (bit < 0 ? "" : "." + Digit(bit));
  const bool isControl = kind.code == kKindMotor && block == kMotorControlBlock;
  const std::string topic =
      names.CardTopic(address) + Digit(block) + (bit < 0 ? "" : "/" + Digit(bit));
  json entity = {{"platform", device.platform},
                 {"unique_id", names.id + "_card" + Digit(address) + "_" + Digit(block) + bitPart},
                 {"name", isControl ? "Control" : device.entity + (isOnly ? "" : number)},
                 {"state_topic", topic}};
  if (kind.outputBlocks != 0) entity["command_topic"] = topic + "/set";
  if (entity["platform"] == "number") entity.update({{"min", 0}, {"max", 255}});
  if (kind.code == kKindAnalogueInput) entity["state_class"] = "measurement";
  return entity;
}

json Message(const json& device, const json& components) {
  return {{"device", device},
          {"origin", {{"name", "talp-mqtt"}, {"sw_version", TALP_VERSION}}},
          {"components", components}};
}

}  // namespace

std::string DiscoveryTopic(const NAMES& names, int address) {
  const std::string card = address == kBoard ? "" : "_" + Digit(address);
  return names.homeAssistant + "/device/" + names.object + card + "/config";
}

std::string BoardMessage(const NAMES& names) {
  const json connection = {{"platform", "binary_sensor"},
                           {"unique_id", names.id + "_status"},
                           {"name", "Connection"},
                           {"device_class", "connectivity"},
                           {"entity_category", "diagnostic"},
                           {"state_topic", names.root + "status"},
                           {"payload_on", "online"},
                           {"payload_off", "offline"}};
  const json device = {{"identifiers", {names.id}},
                       {"name", names.node},
                       {"model", "talp card bus"},
                       {"sw_version", TALP_VERSION}};
  return Message(device, {{"connection", connection}}).dump();
}

std::string CardMessage(const NAMES& names, int address, const CARD_KIND& kind) {
  json components = json::object();
  for (const DEVICE_KIND& device : kDeviceKinds) {
    if (device.code != kind.code) continue;
    const int blocks = std::max(kind.inputBlocks, kind.outputBlocks);
    for (int i = 0; i < blocks * (device.isBits ? 8 : 1); ++i) {
      const int block = device.isBits ? i / 8 : i;
      const int bit = device.isBits ? i % 8 : -1;
      const std::string key = Digit(block) + (bit < 0 ? "" : "_" + Digit(bit));
      components[key] = BlockEntity(names, address, kind, device, block, bit);
    }
    if (kind.code == kKindLcd) components["text"] = LcdEntity(names, address);
    const json about = {{"identifiers", {names.id + "_card" + Digit(address)}},
                        {"name", names.node + " card " + Digit(address)},
                        {"model", device.model},
                        {"via_device", names.id}};
    json message = Message(about, components);
    message["availability_topic"] = names.root + "status";
    return message.dump();
  }
  return {};
}

bool IsEntityTopic(const NAMES& names, const std::string& topic) {
  for (const DEVICE_KIND& device : kDeviceKinds) {
    const std::string start =
        names.homeAssistant + "/" + device.platform + "/" + names.id + "/card";
    if (topic.compare(0, start.size(), start) != 0) continue;
    std::string path = "card/" + topic.substr(start.size());
    std::replace(path.begin(), path.end(), '_', '/');
    const PLACE place = PlaceOf(path);
    if (place.block >= 0 && place.tail == "config") return true;
  }
  return false;
}

bool IsDiscoveryTopic(const NAMES& names, const std::string& topic) {
  for (int address = kBoard; address < kAddressCount; ++address) {
    if (topic == DiscoveryTopic(names, address)) return true;
  }
  return IsEntityTopic(names, topic);
}

std::vector<std::vector<std::string>> DiscoveryFilters(const NAMES& names) {
  std::vector<std::vector<std::string>> packets(3);
  for (int address = 0; address < kAddressCount; ++address) {
    packets[static_cast<std::size_t>(address / 8)].push_back(DiscoveryTopic(names, address));
  }
  packets[2] = {DiscoveryTopic(names, kBoard),
                names.homeAssistant + "/+/" + names.id + "/+/config"};
  return packets;
}

}  // namespace mqtt

#ifndef TALP_TOOLS_MQTT_NODE_H_
#define TALP_TOOLS_MQTT_NODE_H_

#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "master/perifcard.h"

// What the bridge decides: no descriptor, no clock. It parses untrusted input.
namespace mqtt {

using LINES = std::vector<std::string>;

constexpr char kHexDigits[] = "0123456789ABCDEF";

// What is known of the card at one address.
struct CARD {
  const CARD_KIND* kind = nullptr;                               // null: not known
  std::array<std::optional<unsigned char>, kBlockCount> blocks;  // as reported, or as sent

  bool Is(KIND_CODE code) const { return kind != nullptr && kind->code == code; }
};

using CARDS = std::array<CARD, kAddressCount>;

// The lines, without separators, that a message asks for. `path` is the topic below that of the
// node. Each line is one that talp takes from the card of the kind that is known (of any kind where
// none is), fits one message to the IO port and holds no `separator`. Throws a std::exception with
// the reason when the message is refused.
LINES Translate(const std::string& path, const std::string& payload, const CARDS& cards,
                const std::string& separator);

// Throws a std::invalidargument with `reason` unless `holds`.
void Require(bool holds, const std::string& reason);

// What a board is called at the broker.
struct NODE_NAMES {
  std::string topic = "talp";                   // of all boards
  std::string node;                             // of this one
  std::string homeAssistant = "homeassistant";  // prefix of the documents; empty: there are none
};

// A board as a node of the broker: what is known of its cards, and what its topics say. One thread.
class NODE {
 public:
  // `separator` ends the lines of the IO port.
  NODE(NODE_NAMES nodeNames, std::string separator, bool hasConsole)
      : names(std::move(nodeNames)),
        root(names.topic + "/" + names.node + "/"),
        id(std::regex_replace(names.topic + "_" + names.node, std::regex("[^A-Za-z0-9_]"), "_")),
        separator_(std::move(separator)),
        hasConsole_(hasConsole),
        retained_({{root + "status", "offline"}}),
        kindsKnown_(!hasConsole) {}
  virtual ~NODE() = default;

  const NODE_NAMES names;
  const std::string root;  // of its topics, with a slash at the end
  const std::string id;    // topic and node in letters, digits and '_'

  // The broker is there: all that is true now is published again.
  void OnBroker() {
    for (const auto& [topic, payload] : retained_) Publish(topic, payload, true);
  }

  // The IO port has greeted, or is lost. With the greeting all values are forgotten: inputs may
  // have changed unseen, and a daemon that has started anew no longer has the outputs.
  void OnIo(bool greeted) {
    greeted_ = greeted;
    heard_.clear();
    for (int block = 0; greeted && block < kAddressCount * kBlockCount; ++block) {
      cards_[block / kBlockCount].blocks = {};
      Forget(CardTopic(block / kBlockCount) + kHexDigits[block % kBlockCount]);
    }
    Retain(root + "status", greeted ? "online" : "offline");
    if (greeted && hasConsole_) Discover();
  }

  // A line of the IO port. What comes before the greeting was meant for an earlier client and says
  // nothing of the present state.
  void OnLine(const std::string& line) {
    Publish(root + "io", line, false);
    if (!greeted_) return;
    ShowLine(line);
    if (line.size() < 2) return;
    const int address = HexCharToByte(line[1]);
    heard_.insert(address);
    // A card that was not there yet when the console was asked.
    if (hasConsole_ && cards_[address].Is(kKindEmpty)) Discover();
  }

  // The console has listed the names of the kinds, one an address. Names of no kind are ignored.
  void OnKinds(const LINES& kindNames) {
    kindsKnown_ = true;
    bool isMissing = false;  // a card that has sent a line while the console was asked
    for (int i = 0; i < kAddressCount * 0x100; ++i) {
      const int address = i / 0x100;
      const CARD_KIND& kind = CardKindOf(static_cast<unsigned char>(i));
      if (kindNames.at(address) != kind.name) continue;
      isMissing = isMissing || (kind.code == kKindEmpty && heard_.count(address) != 0);
      if (cards_[address].kind != &kind) SetKind(address, kind);
    }
    heard_.clear();
    if (isMissing) Discover();
    for (const std::string& topic : std::exchange(leftovers_, {})) OnLeftover(topic);
  }

  // A message from the broker: the bytes are anybody's.
  void OnMessage(const std::string& topic, const std::string& payload, bool retained) {
    const auto isBelow = [&topic](const std::string& start) { return topic.rfind(start, 0) == 0; };
    const std::string& prefix = names.homeAssistant;
    const bool isOurs =
        isBelow(root + "card/") || (!prefix.empty() && isBelow(prefix + "/") &&
                                    topic.find("/" + id + "/") != std::string::npos);
    if (isBelow(root) && (topic + "/").find("/set/", root.size() - 1) != std::string::npos) {
      Execute(topic.substr(root.size()), payload, retained);
    } else if (topic == prefix + "/status" && payload == "online") {
      OnBroker();
    } else if (retained && !payload.empty() && isOurs) {
      OnLeftover(topic);
    }
  }

 private:
  // An empty retained payload removes the topic. While the broker is away this may do nothing.
  virtual void Publish(const std::string& topic, const std::string& payload, bool retain) = 0;
  // Sends lines to the IO port, all or none. False if it takes no more.
  virtual bool Send(const LINES& lines) = 0;
  // Has the console asked for the cards. Not called without a console.
  virtual void Discover() = 0;

  // What the blocks of a card are to Home Assistant; of digital cards the bits.
  static constexpr std::pair<KIND_CODE, const char*> kComponents[] = {
      {kKindDigitalInput, "binary_sensor"}, {kKindDigitalOutput, "switch"}, {kKindMotor, "number"},
      {kKindAnalogueInput, "sensor"},       {kKindServo, "number"},         {kKindKeypad, "sensor"},
  };

  // One line of bounded length, whatever the bytes.
  static std::string Printable(std::string text) {
    if (text.size() > 200) text.replace(200, std::string::npos, "...");
    for (char& c : text) c = c < ' ' || c > '~' ? '?' : c;
    return text;
  }

  void Execute(const std::string& path, const std::string& payload, bool retained) try {
    // An empty one is how somebody removes a message that was retained by mistake.
    if (retained && payload.empty()) return;
    Require(!retained, "it is retained, and would run again at every connect");
    if (path == "discover/set") {
      Require(greeted_ && hasConsole_, "the console cannot be asked");
      return Discover();
    }
    const LINES lines = Translate(path, payload, cards_, separator_);
    Require(greeted_, "the IO port is not connected");
    Require(Send(lines), "too many lines wait for the IO port");
    for (const std::string& line : lines) ShowLine(line);
  } catch (const std::exception& refusal) {
    const std::string start = Printable(root + path) + " '" + Printable(payload) + "': ";
    Publish(root + "error", start + Printable(refusal.what()), false);
  }

  // Retained by an earlier run. Nobody knows what has become of values. Kinds and documents stand
  // until the console has answered: Home Assistant would forget what its user has set up for an
  // entity.
  void OnLeftover(const std::string& topic) {
    if (retained_.count(topic) != 0) return;
    const bool isValue = topic.rfind(root, 0) == 0 && topic.find("/kind") == std::string::npos;
    if (kindsKnown_ || isValue) {
      Publish(topic, "", true);
    } else if (leftovers_.size() < 4096) {
      leftovers_.insert(topic);
    }
  }

  void SetKind(int address, const CARD_KIND& kind) {
    CARD& card = cards_[address];
    for (const auto& entry : DocumentsOf(address)) Forget(entry.first);
    // Blocks that were seen before their card was known stay.
    const bool isFirst = card.kind == nullptr || card.Is(kKindEmpty);
    if (!isFirst || kind.code == kKindEmpty) {
      Forget(CardTopic(address));
      card = {};
    }
    card.kind = &kind;
    if (kind.code == kKindEmpty) return;
    Retain(CardTopic(address) + "kind", kind.name);
    for (const auto& [topic, document] : DocumentsOf(address)) Retain(topic, document);
    for (int block = 0; block < kBlockCount; ++block) {
      if (card.blocks[block]) ShowBlock(address, block, *card.blocks[block]);
    }
  }

  // The documents by which Home Assistant finds the entities of the card, by topic. What our
  // messages say is what it expects where a document does not say.
  std::map<std::string, std::string> DocumentsOf(int address) const {
    std::map<std::string, std::string> documents;
    const CARD& card = cards_[address];
    for (const auto& [code, component] : kComponents) {
      if (!card.Is(code) || names.homeAssistant.empty()) continue;
      const int bits = code == kKindDigitalInput || code == kKindDigitalOutput ? 8 : 1;
      const int blocks = std::max(card.kind->inputBlocks, card.kind->outputBlocks);
      for (int i = 0; i < blocks * bits; ++i) {
        const std::string bit = bits == 1 ? "" : "/" + std::to_string(i % bits);
        const std::string part = kHexDigits[address] + ("/" + std::to_string(i / bits)) + bit;
        const std::string object = "card" + std::regex_replace(part, std::regex("/"), "_");
        const std::string topic = root + "card/" + part;
        nlohmann::json document = {{"name", std::string(card.kind->name) + " " + part},
                                   {"unique_id", id + "_" + object},
                                   {"state_topic", topic},
                                   {"availability_topic", root + "status"}};
        document["device"] = {
            {"identifiers", {id}}, {"name", names.node}, {"sw_version", TALP_VERSION}};
        if (card.kind->outputBlocks != 0) document["command_topic"] = topic + "/set";
        if (component == std::string("number")) document.update({{"min", 0}, {"max", 255}});
        const std::string start = names.homeAssistant + "/" + component + "/" + id + "/";
        documents[start + object + "/config"] = document.dump();
      }
    }
    return documents;
  }

  // What a line of the block form says, in either direction. talp takes missing digits for 0.
  void ShowLine(const std::string& line) {
    if (line.size() < 5 || line[0] != 'a' || line[2] != 'b' || line[4] != 'd') return;
    const std::string digits = line.substr(5) + "00";
    ShowBlock(HexCharToByte(line[1]), HexCharToByte(line[3]), HexNum2Byte(digits[0], digits[1]));
  }

  void ShowBlock(int address, int block, unsigned char value) {
    CARD& card = cards_[address];
    card.blocks[block] = value;
    const std::string topic = CardTopic(address) + kHexDigits[block];
    retained_.erase(topic);  // a value is published each time, also when it is the same
    Retain(topic, std::to_string(value));
    const bool isOutput = card.Is(kKindDigitalOutput);
    for (int bit = 0; bit < (isOutput || card.Is(kKindDigitalInput) ? 8 : 0); ++bit) {
      const bool isOn = ((value >> bit & 1) != 0) != isOutput;
      Retain(topic + "/" + std::to_string(bit), isOn ? "ON" : "OFF");
    }
  }

  // With a slash at its end.
  std::string CardTopic(int address) const { return root + "card/" + kHexDigits[address] + "/"; }

  void Retain(const std::string& topic, const std::string& payload) {
    if (std::exchange(retained_[topic], payload) != payload) Publish(topic, payload, true);
  }

  // All topics that start like this.
  void Forget(const std::string& start) {
    for (auto at = retained_.lower_bound(start);
         at != retained_.end() && at->first.rfind(start, 0) == 0; at = retained_.erase(at)) {
      Publish(at->first, "", true);
    }
  }

  const std::string separator_;
  const bool hasConsole_;
  CARDS cards_;
  std::set<int> heard_;                          // addresses of lines since the console's last list
  std::map<std::string, std::string> retained_;  // what the broker is to hold, by topic
  std::set<std::string> leftovers_;              // kinds and documents, true or not
  bool kindsKnown_;
  bool greeted_ = false;
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_NODE_H_

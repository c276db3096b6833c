#include "mqtt/node.h"

#include <stdexcept>
#include <utility>

#include "mqtt/home_assistant.h"

namespace mqtt {

namespace {

constexpr std::size_t kMostWaiting = 400;  // commands: more cannot be sent in time
constexpr milliseconds kLongestWait(1800);
constexpr std::size_t kLongestPath = 32;        // of a command
constexpr std::size_t kLongestState = 64;       // payload of a retained topic of a card
constexpr std::size_t kLongestMessage = 65536;  // the same of a discovery message
constexpr seconds kConfirmTime(10);
constexpr int kTopicBlocks = 8;  // that topics name
constexpr int kMostBlocks = 6;   // of a card that has topics

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool StartsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

// One line of bounded length, whatever the bytes.
std::string Printable(std::string text) {
  if (text.size() > 200) text.replace(200, std::string::npos, "...");
  for (char& c : text) c = c < ' ' || c > '~' ? '?' : c;
  return text;
}

// The number from 0 to 255 that a retained topic has; none if it is written in another way.
std::optional<unsigned char> ByteIn(const std::string& payload) {
  const long number = ATOL(payload);
  if (number < 0 || number > 255 || std::to_string(number) != payload) return std::nullopt;
  return static_cast<unsigned char>(number);
}

bool IsInputKind(const CARD& card) { return card.kind != nullptr && card.kind->lastInputReadable; }

const char* BitText(const CARD& card, unsigned char value, int bit) {
  const bool isSet = (value >> bit & 1) != 0;
  return isSet != card.Is(kKindDigitalOutput) ? "ON" : "OFF";
}

}  // namespace

NODE::NODE(NAMES nodeNames, std::string separator, bool hasConsole, bool restores)
    : names(std::move(nodeNames)),
      separator_(std::move(separator)),
      hasConsole_(hasConsole),
      restores_(restores),
      kindsKnown_(!hasConsole) {
  polled_.set();
  true_[names.root + "status"] = "offline";
  if (!names.homeAssistant.empty()) true_[DiscoveryTopic(names, kBoard)] = BoardMessage(names);
}

// Single topics come first. Whatever else somebody has put below the node, they are delivered.
std::vector<std::vector<std::string>> NODE::RetainedFilters() const {
  std::vector<std::vector<std::string>> packets;
  for (int address = 0; address < kAddressCount; ++address) {
    const std::string card = names.CardTopic(address);
    packets.push_back({card + "kind"});
    for (int block = 0; block < kMostBlocks; ++block) {
      packets.back().push_back(card + std::to_string(block));
    }
  }
  packets.push_back({names.root + "card/#", names.root + "status", names.root + "bus"});
  if (names.homeAssistant.empty()) return packets;
  for (auto& packet : DiscoveryFilters(names)) packets.push_back(std::move(packet));
  return packets;
}

std::vector<std::string> NODE::CommandFilters() const {
  return {names.root + "io/set", names.root + "card/+/+/set", names.root + "card/+/+/+/set",
          names.root + "discover/set"};
}

void NODE::OnRetained(const std::string& topic, const std::string& payload) {
  const bool isOwn = StartsWith(topic, names.root);
  const std::string path = isOwn ? topic.substr(names.root.size()) : "";
  if (EndsWith(path, "/set")) return;  // refused when commands are let in
  const PLACE place = PlaceOf(path);
  const bool isState = place.address >= 0 && place.tail == (place.block < 0 ? "kind" : "");
  const bool isDiscovery =
      !isOwn && payload.size() <= kLongestMessage && IsDiscoveryTopic(names, topic);
  if (isDiscovery || path == "status" || path == "bus" ||
      (isState && payload.size() <= kLongestState)) {
    held_[topic] = payload;
  } else if (StartsWith(path, "card/")) {
    Publish(topic, "", true);
  }
}

void NODE::OnBroker(bool ready) {
  isReady_ = ready;
  if (!ready) return held_.clear();
  for (int address = 0; !hasMemory_ && address < kAddressCount; ++address) Believe(address);
  if (!hasMemory_) confirmBy_ = now_ + kConfirmTime;
  hasMemory_ = true;
  Complete();
}

// Of what an earlier run has published: the kind, until the console has told it; outputs, which
// nobody else knows; and inputs, until talp has told them.
void NODE::Believe(int address) {
  CARD& card = CardAt(address);
  const std::string topic = names.CardTopic(address);
  const std::string kindName = Held(topic + "kind");
  const CARD_KIND* const kind = KindNamed(kindName);
  if (kind == nullptr || (card.kind != nullptr && card.kind != kind)) return;
  if (card.kind == nullptr && hasConsole_) {
    card.kind = kind;
    true_[topic + "kind"] = kindName;
  }
  for (int block = 0; block < kTopicBlocks; ++block) {
    const auto index = static_cast<std::size_t>(block);
    const auto value = ByteIn(Held(topic + std::to_string(block)));
    const bool isOutput = restores_ && card.IsRestorable() && block < kind->outputBlocks;
    const bool isInput = IsInputKind(card) && block < kind->inputBlocks;
    // A line that came meanwhile is newer, and has its bits only now that the kind is known.
    if (card.blocks[index]) ShowBlock(address, block, *card.blocks[index], false);
    if (!value || card.blocks[index] || !(isOutput || isInput)) continue;
    // A bridge that is killed leaves outputs whose bits are older than their number, which is
    // published first. Inputs are asked for in any case.
    if (isInput && IsContradicted(address, block, *value)) continue;
    card.isForgotten = card.isForgotten || isOutput;
    card.unconfirmed.set(index, isInput);
    ShowBlock(address, block, *value, false);
  }
}

bool NODE::IsContradicted(int address, int block, unsigned char value) const {
  const CARD& card = cards_[static_cast<std::size_t>(address)];
  const bool hasBits = card.Is(kKindDigitalOutput) || card.Is(kKindDigitalInput);
  const std::string topic = names.CardTopic(address) + std::to_string(block) + "/";
  for (int bit = 0; hasBits && bit < 8; ++bit) {
    const std::string held = Held(topic + std::to_string(bit));
    if (!held.empty() && held != BitText(card, value, bit)) return true;
  }
  return false;
}

void NODE::OnMessage(const std::string& topic, const std::string& payload, bool retained) {
  if (!StartsWith(topic, names.root) || !EndsWith(topic, "/set")) return;
  const std::string path = topic.substr(names.root.size());
  const bool isDiscover = path == "discover/set";
  // An empty one is how somebody removes a message that was retained by mistake.
  if (payload.empty() && (retained || !isDiscover)) return;
  try {
    if (retained && StartsWith(path, "card/")) Publish(topic, "", true);
    Require(!retained, "it is retained, and would run again at every connect");
    if (isDiscover) {
      Require(greeted_ && hasConsole_, "the console cannot be asked");
      // Somebody may have forced a discovery on the console, which makes talp forget the outputs.
      for (CARD& card : cards_) card.isForgotten = restores_ && card.IsRestorable();
      kindsFresh_ = false;
      return AskConsole();
    }
    Require(path.size() <= kLongestPath, "unknown topic");
    Require(payload.size() <= kMostText, "too long");
    RequireOnline();
    const COMMAND command{path, payload, now_};
    if (waiting_.empty() && Execute(command)) return;
    Require(waiting_.size() < kMostWaiting, "too many lines wait for the IO port");
    waiting_.push_back(command);
  } catch (const std::exception& refusal) {
    Refuse(path, payload, refusal.what());
  }
}

void NODE::RequireOnline() const {
  Require(greeted_, "the IO port is not connected");
  Require(bus_ != BUS::kOffline, "the card bus is not connected");
  Require(isDiscovered_, "talp has not found any card");
}

// False if the IO port does not take it now. Throws if it is refused.
bool NODE::Execute(const COMMAND& command) {
  const LINES lines = Translate(command.path, command.payload, cards_, separator_);
  // A frame has all blocks of a card, as talp knows them.
  for (const std::string& line : lines) {
    if (!Restore(HexCharToByte(line[1]))) return false;
  }
  if (!Send(lines)) return false;
  for (const std::string& line : lines) ShowLine(line);
  return true;
}

// Sends the outputs of a card that talp may have forgotten. False if the IO port does not take them
// now.
bool NODE::Restore(int address) {
  CARD& card = CardAt(address);
  if (!card.isForgotten) return true;
  LINES lines;
  for (int block = 0; block < kTopicBlocks; ++block) {
    const auto& value = card.blocks[static_cast<std::size_t>(block)];
    if (value) lines.push_back(InputLine(address, block, *value));
  }
  card.isForgotten = !lines.empty() && !Send(lines);
  return !card.isForgotten;
}

void NODE::Refuse(const std::string& path, const std::string& payload, const std::string& reason) {
  const std::string start = Printable(names.root + path) + " '" + Printable(payload) + "': ";
  Publish(names.root + "error", start + Printable(reason), false);
}

void NODE::RefuseWaiting(const std::string& reason) {
  for (const COMMAND& command : std::exchange(waiting_, {})) {
    Refuse(command.path, command.payload, reason);
  }
}

void NODE::OnIo(bool greeted) {
  if (greeted_ == greeted) return;
  greeted_ = greeted;
  heard_.reset();
  if (!greeted) RefuseWaiting("the IO port is not connected");
  // Inputs may have changed unseen, and a daemon that has started anew has no outputs.
  for (int address = 0; greeted && address < kAddressCount; ++address) {
    DoubtInputs(address);
    DoubtOutputs(address);
    CARD& card = CardAt(address);
    if (!card.IsRestorable() && !IsInputKind(card)) {
      for (int block = 0; block < kBlockCount; ++block) ForgetBlock(address, block);
    }
  }
  if (greeted) {
    kindsFresh_ = false;
    AskConsole();
  }
  UpdateStatus();
}

void NODE::OnBus(BUS bus) {
  if (bus_ == bus) return;
  bus_ = bus;
  if (bus == BUS::kOffline) RefuseWaiting("the card bus is not connected");
  for (int address = 0; address < kAddressCount; ++address) {
    DoubtInputs(address);
    DoubtOutputs(address);
  }
  kindsFresh_ = false;
  AskConsole();
  UpdateStatus();
}

void NODE::DoubtInputs(int address) {
  CARD& card = CardAt(address);
  for (std::size_t block = 0; IsInputKind(card) && block < kBlockCount; ++block) {
    card.unconfirmed.set(block, card.blocks[block].has_value());
  }
  confirmBy_ = now_ + kConfirmTime;
}

// A motor is not driven by anything but a command, so nobody knows what it does.
void NODE::DoubtOutputs(int address) {
  CARD& card = CardAt(address);
  if (card.kind != nullptr && card.kind->outputBlocks == 0) return;
  card.isForgotten = restores_ && card.IsRestorable();
  for (int block = 0; !card.isForgotten && block < kBlockCount; ++block) {
    ForgetBlock(address, block);
  }
}

void NODE::OnLine(const std::string& line) {
  Publish(names.root + "io", line, false);
  if (!greeted_ || line.size() < 7 || line[0] != 'a' || line[2] != 'b' || line[4] != 'd') return;
  const int address = HexCharToByte(line[1]);
  const int block = HexCharToByte(line[3]);
  if (block >= kTopicBlocks) return;
  OnInput(address, block, HexNum2Byte(line[5], line[6]));
  heard_.set(static_cast<std::size_t>(address));
  // A card that was not there yet when the console was asked.
  if (CardAt(address).Is(kKindEmpty)) AskConsole();
}

// What the console was asked for is not told again if it is what was known.
void NODE::OnInput(int address, int block, unsigned char value) {
  CARD& card = CardAt(address);
  const auto index = static_cast<std::size_t>(block);
  const bool isAnswer = card.asked[index];
  const bool isKnown = card.blocks[index] == value;
  card.unconfirmed.reset(index);
  card.asked.reset(index);
  // talp has 0 for an input that it has never read.
  const bool isRead = value != 0 || polled_[static_cast<std::size_t>(address)];
  if (isAnswer && !isRead && !isKnown) return ForgetBlock(address, block);
  ShowBlock(address, block, value, !isAnswer);
}

bool NODE::OnKinds(const LINES& kindNames) {
  isDiscovered_ = false;
  for (const std::string& name : kindNames) {
    isDiscovered_ = isDiscovered_ || name != CardKindOf(kKindEmpty).name;
  }
  if (isDiscovered_) {
    kindsKnown_ = kindsFresh_ = true;
    for (int address = 0; address < kAddressCount; ++address) {
      const CARD_KIND* const kind = KindNamed(kindNames.at(static_cast<std::size_t>(address)));
      if (kind != nullptr) SetKind(address, *kind);
      // It has sent a line while the console was asked.
      if (CardAt(address).Is(kKindEmpty) && heard_[static_cast<std::size_t>(address)]) AskConsole();
    }
    heard_.reset();
    if (isReady_) Complete();
  }
  UpdateStatus();
  return isDiscovered_;
}

void NODE::SetKind(int address, const CARD_KIND& kind) {
  CARD& card = CardAt(address);
  // Blocks that were seen before their card was known stay.
  const bool isOther = card.kind != nullptr && card.kind != &kind && !card.Is(kKindEmpty);
  if (isOther || kind.code == kKindEmpty) ForgetCard(address);
  const bool isNew = card.kind != &kind;
  card.kind = &kind;
  if (kind.code == kKindEmpty) return;
  Retain(names.CardTopic(address) + "kind", kind.name);
  for (int block = 0; isNew && block < kBlockCount; ++block) {
    const auto& value = card.blocks[static_cast<std::size_t>(block)];
    if (value) ShowBlock(address, block, *value, false);
  }
  if (names.homeAssistant.empty()) return;
  const std::string message = CardMessage(names, address, kind);
  if (!message.empty()) true_[DiscoveryTopic(names, address)] = message;
}

void NODE::OnInputsAsked(const std::bitset<kAddressCount>& polled) {
  polled_ = polled;
  for (CARD& card : cards_) {
    if (IsInputKind(card)) card.asked.set();
  }
}

void NODE::OnTime(CLOCK::time_point now) {
  now_ = now;
  while (IsWaiting() && now_ - waiting_.front().arrival > kLongestWait) {
    Refuse(waiting_.front().path, waiting_.front().payload, "too many lines wait for the IO port");
    waiting_.pop_front();
  }
  if (!hasMemory_ || !IsOnline()) return;
  bool takesMore = true;
  for (int address = 0; kindsFresh_ && takesMore && address < kAddressCount; ++address) {
    takesMore = Restore(address);
  }
  while (takesMore && IsWaiting()) {
    const COMMAND command = waiting_.front();
    try {
      takesMore = Execute(command);
    } catch (const std::exception& refusal) {
      Refuse(command.path, command.payload, refusal.what());
    }
    if (takesMore) waiting_.pop_front();
  }
  if (now_ < confirmBy_) return;
  for (int address = 0; address < kAddressCount; ++address) {
    for (int block = 0; block < kBlockCount; ++block) {
      if (CardAt(address).unconfirmed[static_cast<std::size_t>(block)]) ForgetBlock(address, block);
    }
  }
}

// What a line of the block form says that was sent. talp takes missing digits for 0.
void NODE::ShowLine(const std::string& line) {
  if (line.size() < 5 || line[0] != 'a' || line[2] != 'b' || line[4] != 'd') return;
  const std::string digits = line.substr(5) + "00";
  ShowBlock(HexCharToByte(line[1]), HexCharToByte(line[3]), HexNum2Byte(digits[0], digits[1]),
            true);
}

// `isAgain`: the value is published also when it is the same.
void NODE::ShowBlock(int address, int block, unsigned char value, bool isAgain) {
  CARD& card = CardAt(address);
  card.blocks[static_cast<std::size_t>(block)] = value;
  const std::string topic = names.CardTopic(address) + kHexDigits[static_cast<std::size_t>(block)];
  if (isAgain) held_.erase(topic);
  Retain(topic, std::to_string(value));
  const bool hasBits = card.Is(kKindDigitalOutput) || card.Is(kKindDigitalInput);
  for (int bit = 0; hasBits && bit < 8; ++bit) {
    Retain(topic + "/" + std::to_string(bit), BitText(card, value, bit));
  }
}

void NODE::UpdateStatus() {
  const bool knowsBus = greeted_ && bus_ != BUS::kUnknown;
  if (knowsBus) Retain(names.root + "bus", bus_ == BUS::kOnline ? "online" : "offline");
  if (!knowsBus) Forget(names.root + "bus");
  const std::string topic = names.root + "status";
  const std::string status = IsOnline() ? "online" : "offline";
  if (true_[topic] != status) confirmBy_ = now_ + kConfirmTime;
  Retain(topic, status);
}

// Publishes what the broker does not have, and removes what is not true. The status comes last.
void NODE::Complete() {
  const std::map<std::string, std::string> held = held_;
  if (kindsKnown_ && !names.homeAssistant.empty()) {
    for (const auto& entry : held) {
      if (IsEntityTopic(names, entry.first)) Publish(entry.first, kMigration, true);
    }
  }
  const std::string statusTopic = names.root + "status";
  for (const auto& [topic, payload] : std::map(true_)) {
    if (topic != statusTopic) Retain(topic, payload);
  }
  for (const auto& entry : held) {
    if (true_.count(entry.first) == 0 && !IsUndecided(entry.first)) Remove(entry.first);
  }
  Retain(statusTopic, true_[statusTopic]);
}

// Kinds and discovery messages stand until the console has answered: Home Assistant would forget
// what its user has set up for an entity.
bool NODE::IsUndecided(const std::string& topic) const {
  return !kindsKnown_ && (!StartsWith(topic, names.root) || EndsWith(topic, "/kind"));
}

std::string NODE::Held(const std::string& topic) const {
  const auto found = held_.find(topic);
  return found == held_.end() ? "" : found->second;
}

void NODE::Retain(const std::string& topic, const std::string& payload) {
  true_[topic] = payload;
  if (isReady_ && std::exchange(held_[topic], payload) != payload) Publish(topic, payload, true);
}

// Home Assistant ignores that a topic is gone, and shows the last state on.
void NODE::Remove(const std::string& topic) {
  if (!isReady_ || held_.erase(topic) == 0) return;
  const bool isState = StartsWith(topic, names.root + "card/") && !EndsWith(topic, "/kind");
  if (isState && !names.homeAssistant.empty()) Publish(topic, "None", false);
  Publish(topic, "", true);
}

// All topics that start like this.
void NODE::Forget(const std::string& start) {
  for (auto at = true_.lower_bound(start); at != true_.end() && StartsWith(at->first, start);) {
    const std::string topic = at->first;
    at = true_.erase(at);
    Remove(topic);
  }
}

void NODE::ForgetBlock(int address, int block) {
  CARD& card = CardAt(address);
  const auto index = static_cast<std::size_t>(block);
  card.unconfirmed.reset(index);
  if (!card.blocks[index]) return;
  card.blocks[index].reset();
  Forget(names.CardTopic(address) + kHexDigits[index]);
}

void NODE::ForgetCard(int address) {
  CardAt(address) = {};
  Forget(names.CardTopic(address));
  if (!names.homeAssistant.empty()) Forget(DiscoveryTopic(names, address));
}

}  // namespace mqtt

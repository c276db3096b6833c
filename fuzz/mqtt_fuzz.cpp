// What a broker passes on and what talp's console says: retained topics, commands and lines, with
// cards that are known or not.

#include <sstream>

#include "fuzz_input.h"
#include "mqtt/console_visit.h"
#include "mqtt/node.h"
#include "net/io_command.h"

namespace {

constexpr char kSeparator[] = ";\n";

class FUZZ_NODE : public mqtt::NODE {
 public:
  explicit FUZZ_NODE(const char* prefix) : NODE({"talp", "b", prefix}, kSeparator, true, true) {}

  bool mayBeSent = false;
  bool takesLines = true;

 private:
  void Publish(const std::string& topic, const std::string& payload, bool retain) override {
    const bool isOwn = topic.compare(0, 7, "talp/b/") == 0;
    Require(isOwn || topic.compare(0, 3, "ha/") == 0, "the topic is the node's own");
    Require(topic != "ha/status", "Home Assistant's status is its own");
    if (topic == "talp/b/io") return;  // a line of talp as it is
    for (const char c : payload) Require(c >= ' ' && c <= '~', "what is published is printable");
    Require(payload.size() < (isOwn ? 1000 : 8000), "and short");
    const bool isSet = topic.size() > 4 && topic.compare(topic.size() - 4, 4, "/set") == 0;
    Require(!isSet || (retain && payload.empty()), "a command is removed at most");
  }

  bool Send(const mqtt::LINES& lines) override {
    Require(mayBeSent && !lines.empty(), "nothing is sent unasked");
    std::size_t size = 0;
    for (const std::string& line : lines) {
      size += line.size() + 2;
      Require((line + kSeparator).find(kSeparator) == line.size() &&
                  line.find_first_of(std::string("\r\n\0", 3)) == std::string::npos,
              "a line is whole");
      CARDS cards = AllCards();
      const IO_REQUEST request = ParseIoCommand(line, cards.data());
      Require(request.legal && !request.payload.empty(), "the card there takes the line");
    }
    Require(size <= 255, "talp takes all lines for one message");
    return takesLines;
  }
};

mqtt::LINES Visit(const std::string& text) {
  mqtt::CONSOLE_VISIT visit;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::string next = visit.Take(line);
    Require(next.empty() || next == "POLLSTATE" || next.compare(0, 13, "GETLASTINPST:") == 0,
            "the console is asked for nothing else");
  }
  const bool isWhole = visit.State() != mqtt::CONSOLE_VISIT::STATE::kListing &&
                       visit.State() != mqtt::CONSOLE_VISIT::STATE::kBroken;
  Require(!isWhole || visit.Kinds().size() == kAddressCount, "a list is whole or none");
  Require(visit.Kinds().size() <= kAddressCount, "and bounded");
  return visit.Kinds();
}

}  // namespace

// A byte says whether the IO port is away, messages are retained, discovery messages are published
// (which takes long), the IO port takes no lines; then come topic and payload of each message, a
// line each.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FUZZ_INPUT input(data, size);
  const unsigned flags = input.Byte();
  const std::string text = input.Bytes(size);
  FUZZ_NODE node((flags & 4U) != 0 ? "ha" : "");
  mqtt::LINES names;
  for (const PERIFCARD& card : AllCards()) names.emplace_back(card.name);
  names.resize(kAddressCount);
  std::istringstream retained(text);
  for (std::string topic, payload; std::getline(retained, topic); payload.clear()) {
    std::getline(retained, payload);
    if (!payload.empty()) node.OnRetained(topic, payload);
  }
  node.OnBroker(true);
  mqtt::CLOCK::time_point now{};
  const bool isThere = (flags & 1U) == 0;
  node.OnIo(isThere);
  node.OnKinds(names);
  node.mayBeSent = isThere;
  node.OnTime(now);  // outputs that the broker remembers
  node.takesLines = (flags & 8U) == 0;
  node.mayBeSent = isThere && (flags & 2U) == 0;
  std::istringstream lines(text);
  for (std::string topic, payload; std::getline(lines, topic); payload.clear()) {
    std::getline(lines, payload);
    node.OnMessage(topic, payload, (flags & 2U) != 0);
    node.OnLine(payload);
    now += mqtt::milliseconds(100);
    node.OnTime(now);
  }
  Visit(text);
  return 0;
}

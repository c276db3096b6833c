// What a broker passes on: topics and payloads, with cards that are known or not.

#include <sstream>

#include "fuzz_input.h"
#include "mqtt/node.h"
#include "net/io_command.h"

namespace {

constexpr char kSeparator[] = ";\n";

class FUZZ_NODE : public mqtt::NODE {
 public:
  explicit FUZZ_NODE(const char* prefix) : NODE({"talp", "b", prefix}, kSeparator, true) {}

  bool mayBeSent = false;

 private:
  void Publish(const std::string& topic, const std::string& payload, bool) override {
    Require(topic.compare(0, 7, "talp/b/") == 0 ||
                (topic.compare(0, 3, "ha/") == 0 && topic != "ha/status"),
            "the topic is the node's own");
    for (const char c : payload) Require(c >= ' ' && c <= '~', "what is published is printable");
    Require(payload.size() < 1000, "and short");
  }

  bool Send(const mqtt::LINES& lines) override {
    Require(mayBeSent && !lines.empty(), "nothing is sent unasked");
    for (const std::string& line : lines) {
      Require(line.size() + 2 <= 255 && (line + kSeparator).find(kSeparator) == line.size() &&
                  line.find_first_of(std::string("\r\n\0", 3)) == std::string::npos,
              "one message of talp holds one whole line");
      CARDS cards = AllCards();
      const IO_REQUEST request = ParseIoCommand(line, cards.data());
      Require(request.legal && !request.payload.empty(), "the card there takes the line");
    }
    return true;
  }

  void Discover() override { Require(mayBeSent, "nothing is asked unasked"); }
};

}  // namespace

// A byte says whether the IO port is away, messages are retained, documents are published (which
// takes long); then come topic and payload of each message, a line each.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FUZZ_INPUT input(data, size);
  const unsigned flags = input.Byte();
  FUZZ_NODE node((flags & 4U) != 0 ? "ha" : "");
  node.mayBeSent = true;
  if ((flags & 1U) == 0) node.OnIo(true);
  mqtt::LINES names;
  for (const PERIFCARD& card : AllCards()) names.emplace_back(card.name);
  node.OnKinds(names);
  node.mayBeSent = (flags & 3U) == 0;
  std::istringstream lines(input.Bytes(size));
  for (std::string topic, payload; std::getline(lines, topic); payload.clear()) {
    std::getline(lines, payload);
    node.OnMessage(topic, payload, (flags & 2U) != 0);
  }
  return 0;
}

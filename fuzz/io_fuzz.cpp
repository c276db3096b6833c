// What IO clients send: one message, decoded, split and turned into request payloads.

#include <vector>

#include "fuzz_input.h"
#include "net/client_framing.h"
#include "net/io_command.h"

namespace {

constexpr std::size_t kWorkFrame = 38;  // the longest payload of an output command

// What one read of `bytes` yields, in a buffer of exactly their size.
std::string Decoded(FramingMode mode, const std::string& bytes) {
  const std::vector<char> exact(bytes.begin(), bytes.end());
  return TextOf(DecodeInbound(mode, exact.data(), exact.size()));
}

void CheckRequest(const IO_REQUEST& request) {
  Require(request.address >= 0 && request.address < kAddressCount, "the address is one of a card");
  const std::string payload = TextOf(request.payload);
  Require(request.legal || payload.empty(), "nothing of an illegal command is sent");
  Require(payload.size() <= kWorkFrame, "the payload fits the work frame");
  if (payload.empty()) return;
  Require(payload.size() > 3 && payload[0] == 0x10 && payload[1] == request.address &&
              ByteOf(payload[2]) == payload.size() - 3,
          "the payload has code, address, count and data");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FUZZ_INPUT input(data, size);
  CARDS cards = AllCards();
  const std::string separator = input.Bytes(input.Byte() % 3);
  const std::string message = input.Bytes(size);
  if (message.empty()) return 0;
  Require(Decoded(FramingMode::LengthPrefixed, message) == message.substr(1, ByteOf(message[0])),
          "the length byte counts what follows it");
  const std::string text = Decoded(FramingMode::Text, message);
  Require(text == message.c_str(), "text ends at the first NUL");
  for (const std::string& command : SplitCommands(text, separator)) {
    Require(!command.empty(), "no piece is empty");
    CheckRequest(ParseIoCommand(command, cards.data()));
  }
  return 0;
}

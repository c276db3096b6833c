// What IO clients send: one message, split and turned into request payloads.

#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "net/io_command.h"

namespace {

constexpr std::size_t kWorkFrame = 38;  // the longest payload of an output command

void CheckPieces(const std::string& text, const std::string& separator,
                 const std::vector<std::string>& commands) {
  std::size_t at = 0;
  for (const std::string& command : commands) {
    Require(!command.empty(), "no piece is empty");
    Require(separator.empty() || command.find(separator) == std::string::npos,
            "no piece holds a separator");
    at = text.find(command, at);
    Require(at != std::string::npos, "the pieces stand in the text, in order");
    at += command.size();
  }
}

void CheckRequest(const IO_REQUEST& request) {
  Require(request.address >= 0 && request.address < kAddressCount, "the address is one of a card");
  const std::string payload(request.payload.begin(), request.payload.end());
  Require(request.legal || payload.empty(), "nothing of an illegal command is sent");
  Require(payload.size() <= kWorkFrame, "the payload fits the work frame");
  if (payload.empty()) return;
  Require(payload.size() > 3 && payload[0] == 0x10, "the payload has code, address, count, data");
  Require(payload[1] == request.address, "the payload is for the addressed card");
  Require(ByteOf(payload[2]) == payload.size() - 3, "the count is that of the data");
}

void CheckCards(const PERIFCARD* before, const PERIFCARD* after, const IO_REQUEST& request) {
  for (int i = 0; i <= kAddressCount; ++i) {
    const bool same = std::memcmp(before[i].blockState, after[i].blockState, kBlockCount) == 0;
    Require(same || (request.legal && i == request.address), "no other card's state changes");
    Require(before[i].kindCode == after[i].kindCode, "no card's kind changes");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FUZZ_INPUT input(data, size);
  PERIFCARD cards[kAddressCount + 1];
  FillCards(input.Byte(), cards);
  const std::string separator = PickSeparator(input.Byte());
  const std::string message = input.Rest();
  const std::string text = Convert_QList2String(BYTE_LIST(message.begin(), message.end()));
  const std::vector<std::string> commands = SplitCommands(text, separator);
  CheckPieces(text, separator, commands);
  for (const std::string& command : commands) {
    const std::vector<PERIFCARD> before(cards, cards + kAddressCount + 1);
    const IO_REQUEST request = ParseIoCommand(command, cards);
    CheckRequest(request);
    CheckCards(before.data(), cards, request);
  }
  return 0;
}

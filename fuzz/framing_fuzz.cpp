// What one read from a client yields, and what is written back, in both framings.

#include <vector>

#include "fuzz_input.h"
#include "net/client_framing.h"

namespace {

constexpr std::size_t kReadSize = 255;

// Decoded from a buffer of exactly the size that was read, so that a look beyond it is caught.
std::string Decoded(int mode, const std::string& bytes) {
  const std::vector<char> exact(bytes.begin(), bytes.end());
  const BYTE_LIST list = DecodeInbound(mode, exact.data(), exact.size());
  return std::string(list.begin(), list.end());
}

void CheckText(const std::string& bytes) {
  Require(Decoded(Text, bytes) == bytes.substr(0, bytes.find('\0')), "text ends at the first NUL");
  Require(EncodeOutbound(Text, BYTE_LIST(bytes.begin(), bytes.end())) == bytes + '\r',
          "text goes out as it is, with a carriage return");
}

void CheckLengthPrefixed(const std::string& bytes) {
  const std::string message = Decoded(LengthPrefixed, bytes);
  Require(message == bytes.substr(1, ByteOf(bytes[0])), "the length byte counts what follows it");
  const std::string sent =
      EncodeOutbound(LengthPrefixed, BYTE_LIST(message.begin(), message.end()));
  Require(Decoded(LengthPrefixed, sent) == message, "what is sent is read back the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FUZZ_INPUT input(data, size);
  while (!input.Empty()) {
    const std::string bytes = input.Bytes(kReadSize);
    CheckText(bytes);
    CheckLengthPrefixed(bytes);
  }
  return 0;
}

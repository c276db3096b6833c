#include "net/client_framing.h"

#include <algorithm>

namespace {

struct BANNER {
  const char* name;
  const char* text;
};

constexpr BANNER kBanners[] = {
    {"CAE", "TALP CAE interface is ready\r\n(Type HELP for help)\r\n>\r\n"},
    {"IO", "TALP IO interface is ready\r\n"},
    {"MON", "TALP MON interface is ready\r\n"},
};

}  // namespace

BYTE_LIST DecodeInbound(FramingMode mode, const char* bytes, std::size_t count) {
  const char* const end = bytes + count;
  if (mode == FramingMode::Text) return BYTE_LIST(bytes, std::find(bytes, end, '\0'));
  const std::size_t promised = ByteOf(bytes[0]);
  return BYTE_LIST(bytes + 1, bytes + 1 + std::min(promised, count - 1));
}

std::string EncodeOutbound(FramingMode mode, const BYTE_LIST& message) {
  std::string bytes(message.begin(), message.end());
  if (mode == FramingMode::Text) return bytes + '\r';
  return static_cast<char>(static_cast<unsigned char>(message.size())) + bytes;
}

std::string BannerOf(const std::string& name) {
  for (const BANNER& banner : kBanners) {
    if (name == banner.name) return banner.text;
  }
  return "";
}

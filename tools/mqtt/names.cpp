#include "mqtt/names.h"

#include <algorithm>
#include <utility>

namespace mqtt {

namespace {

bool IsWordChar(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

// In letters, digits and '_', and for other characters '-' and their code, or only '_'.
std::string Word(const std::string& text, bool withCodes) {
  std::string word;
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    if (IsWordChar(c)) {
      word += c;
    } else if (withCodes) {
      word += {'-', kHexDigits[code / 16], kHexDigits[code % 16]};
    } else {
      word += '_';
    }
  }
  return word;
}

}  // namespace

NAMES::NAMES(const std::string& topic, std::string nodeName, std::string prefix)
    : node(std::move(nodeName)),
      homeAssistant(std::move(prefix)),
      root(topic + "/" + node + "/"),
      clientId("talp-mqtt-" + topic + "/" + node),
      id(Word(topic, false) + "_" + Word(node, false)),
      object(Word(topic, true) + "_" + Word(node, true)) {}

std::string NAMES::CardTopic(int address) const {
  return root + "card/" + kHexDigits[static_cast<std::size_t>(address)] + "/";
}

PLACE PlaceOf(const std::string& path) {
  constexpr std::string_view kStart = "card/";
  PLACE place;
  std::size_t at = 0;
  if (path.compare(0, kStart.size(), kStart) == 0) {
    at = kStart.size();
    const std::pair<int*, std::size_t> parts[] = {
        {&place.address, 16}, {&place.block, 8}, {&place.bit, 8}};
    for (const auto& [part, count] : parts) {
      const bool isWhole = at + 1 == path.size() || (at + 2 < path.size() && path[at + 1] == '/');
      const std::size_t digit = isWhole ? kHexDigits.substr(0, count).find(path[at]) : count;
      if (digit >= count) break;
      *part = static_cast<int>(digit);
      at = std::min(at + 2, path.size());
    }
    if (place.address < 0) at = 0;
  }
  place.tail = path.substr(at);
  return place;
}

}  // namespace mqtt

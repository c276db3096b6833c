#include "cardsim/bytes.h"

#include <charconv>
#include <sstream>

std::string HexText(const BYTES& bytes) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const unsigned char byte : bytes) {
    if (!text.empty()) text += ' ';
    text += {kDigits[byte >> 4], kDigits[byte & 0x0F]};
  }
  return text;
}

std::string Printable(std::string text) {
  for (char& c : text) {
    if (c < ' ' || c > '~') c = '.';
  }
  return text;
}

std::optional<unsigned> ParseNumber(const std::string& text, int base) {
  unsigned number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number, base);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return number;
}

std::optional<unsigned char> ParseHex(const std::string& text, size_t digits) {
  const std::optional<unsigned> number = ParseNumber(text, 16);
  if (!number || text.size() != digits) return std::nullopt;
  return static_cast<unsigned char>(*number);
}

WORDS SplitWords(const std::string& text) {
  WORDS words;
  std::istringstream stream(text);
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

std::string JoinWords(const WORDS& words) {
  std::string text;
  for (const std::string& word : words) text += ' ' + word;
  return text;
}

#include "cardsim/bytes.h"

#include <algorithm>

namespace cardsim {

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

// The ctype functions follow the locale and take no plain char; bus text is ASCII.
bool IsPrintable(unsigned char byte) { return byte >= 0x20 && byte < 0x7F; }

bool IsDecimal(char c) { return c >= '0' && c <= '9'; }

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

int DigitValue(char c) {
  if (IsDecimal(c)) return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::string HexByte(unsigned char byte) { return {kDigits[byte >> 4], kDigits[byte & 0x0F]}; }

std::string HexText(const unsigned char* bytes, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    if (i > 0) text += ' ';
    text += HexByte(bytes[i]);
  }
  return text;
}

std::string HexText(const BYTES& bytes) { return HexText(bytes.data(), bytes.size()); }

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (!IsPrintable(byte)) {
      quoted += "\\x" + HexByte(byte);
      continue;
    }
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

std::optional<unsigned char> ParseHexDigit(const std::string& text) {
  if (text.size() != 1 || DigitValue(text[0]) < 0) return std::nullopt;
  return static_cast<unsigned char>(DigitValue(text[0]));
}

std::optional<unsigned char> ParseHexByte(const std::string& text) {
  if (text.size() != 2 || DigitValue(text[0]) < 0 || DigitValue(text[1]) < 0) return std::nullopt;
  return static_cast<unsigned char>(DigitValue(text[0]) * 16 + DigitValue(text[1]));
}

std::optional<int> ParseNumber(const std::string& text) {
  constexpr size_t kMostDigits = 6;
  if (text.empty() || text.size() > kMostDigits) return std::nullopt;
  if (!std::all_of(text.begin(), text.end(), IsDecimal)) return std::nullopt;
  return std::stoi(text);
}

WORDS SplitWords(const std::string& text) {
  WORDS words;
  auto at = text.begin();
  while (true) {
    const auto begin = std::find_if_not(at, text.end(), IsBlank);
    if (begin == text.end()) return words;
    at = std::find_if(begin, text.end(), IsBlank);
    words.emplace_back(begin, at);
  }
}

}  // namespace cardsim

#ifndef CARDSIM_BYTES_H
#define CARDSIM_BYTES_H

#include <optional>
#include <string>
#include <vector>

namespace cardsim {

using BYTES = std::vector<unsigned char>;
using LINES = std::vector<std::string>;
using WORDS = std::vector<std::string>;

// Two upper-case hexadecimal digits.
std::string HexByte(unsigned char byte);

// Bytes as "03 20 02"; nothing for no bytes.
std::string HexText(const unsigned char* bytes, size_t count);
std::string HexText(const BYTES& bytes);

// The text in double quotes, with quotes, backslashes and everything but printable ASCII escaped,
// so that any byte a card or a person sends stays within one line.
std::string Quoted(const std::string& text);

// Exactly one or exactly two hexadecimal digits of either case; nothing otherwise.
std::optional<unsigned char> ParseHexDigit(const std::string& text);
std::optional<unsigned char> ParseHexByte(const std::string& text);

// A decimal number of 1 to 6 digits; nothing otherwise.
std::optional<int> ParseNumber(const std::string& text);

// The text cut at blanks; empty words do not occur.
WORDS SplitWords(const std::string& text);

}  // namespace cardsim

#endif

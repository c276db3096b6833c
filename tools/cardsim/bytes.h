#ifndef TALP_TOOLS_CARDSIM_BYTES_H_
#define TALP_TOOLS_CARDSIM_BYTES_H_

#include <optional>
#include <string>
#include <vector>

using BYTES = std::vector<unsigned char>;
using WORDS = std::vector<std::string>;

// "03 20 02".
std::string HexText(const BYTES& bytes);

// The text with a dot for every byte that is not printable ASCII, so that it stays within a line.
std::string Printable(std::string text);

// A number without a sign, in digits of the base (10 or 16) only; nothing otherwise.
std::optional<unsigned> ParseNumber(const std::string& text, int base);

// Exactly so many hexadecimal digits, at most two; nothing otherwise.
std::optional<unsigned char> ParseHex(const std::string& text, size_t digits);

// The text cut at blanks; empty words do not occur.
WORDS SplitWords(const std::string& text);

// The words with a blank before each.
std::string JoinWords(const WORDS& words);

#endif  // TALP_TOOLS_CARDSIM_BYTES_H_

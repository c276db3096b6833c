#include "master/cae_line.h"

#include <algorithm>

#include "core/byte_list.h"

namespace {

bool Contains(const std::string& line, const std::string& part) {
  return line.find(part) != std::string::npos;
}

}  // namespace

bool LineMatches(const std::string& line, LINE_MATCH match, const std::string& key,
                 const std::string& separator) {
  switch (match) {
    case LINE_MATCH::kWholeLine:
      return line == key + separator;
    case LINE_MATCH::kKeyAndSeparator:
      return Contains(line, key) && Contains(line, separator);
    case LINE_MATCH::kKey:
      return Contains(line, key);
  }
  return false;
}

std::string TextAfter(const std::string& line, char mark, std::size_t count) {
  const std::size_t at = line.find(mark);
  return at == std::string::npos ? "" : line.substr(at + 1, count);
}

std::string CharBefore(const std::string& line, char mark, std::size_t distance) {
  const std::size_t at = line.find(mark);
  return at == std::string::npos || at < distance ? "" : line.substr(at - distance, 1);
}

std::string NumberText(const std::string& line, const std::string& terminators) {
  const std::size_t start = line.find('=');
  if (start == std::string::npos) return "";
  const std::size_t end = std::min(line.find_first_of(terminators), line.size());
  return end <= start ? "" : line.substr(start + 1, end - start - 1);
}

unsigned char DigitOf(const std::string& text) { return text.empty() ? 0 : HexCharToByte(text[0]); }

unsigned char TwoDigitsOf(const std::string& text) {
  return HexNum2Byte(text.empty() ? '0' : text[0], text.size() < 2 ? '0' : text[1]);
}

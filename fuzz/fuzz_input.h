#ifndef TALP_FUZZ_FUZZ_INPUT_H_
#define TALP_FUZZ_FUZZ_INPUT_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>

#include "master/perifcard.h"

// What the fuzz targets share.

// Ends the run, which libFuzzer reports with the input that led here, unless `holds`.
inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

// The input, taken from its front. Beyond its end come zeros and empty texts.
class FUZZ_INPUT {
 public:
  FUZZ_INPUT(const std::uint8_t* data, std::size_t size) : bytes_(data, data + size) {}

  bool Empty() const { return at_ == bytes_.size(); }

  unsigned char Byte() { return Empty() ? 0 : ByteOf(bytes_[at_++]); }

  std::string Bytes(std::size_t count) {
    std::string taken = bytes_.substr(at_, count);
    at_ += taken.size();
    return taken;
  }

  std::string Rest() { return Bytes(bytes_.size()); }

 private:
  const std::string bytes_;
  std::size_t at_ = 0;
};

// A card of every kind, of none and of an unknown one, beginning with `first`.
inline void FillCards(unsigned char first, PERIFCARD* cards) {
  static constexpr unsigned char kKinds[] = {0, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF, 77};
  REPLY discovery = {'1'};
  for (std::size_t i = 0; i < kAddressCount; ++i) {
    discovery.push_back(kKinds[(first + i) % sizeof kKinds]);
  }
  ApplyDiscoveryAnswer(discovery, cards);
}

// Separators as a configuration may give them, the empty one included.
inline std::string PickSeparator(unsigned char choice) {
  static const std::string kSeparators[] = {"\r\n", "\n", "\r", "", ";", "aa", "\\\r"};
  return kSeparators[choice % std::size(kSeparators)];
}

// Whether `line` is a line as IO clients get it, "a%Xb%Xd%02X".
inline bool IsInputLine(const std::string& line) {
  const std::string digits = "0123456789ABCDEF";
  const auto digit = [&](std::size_t at) { return digits.find(line[at]) != std::string::npos; };
  return line.size() == 7 && line[0] == 'a' && digit(1) && line[2] == 'b' && digit(3) &&
         line[4] == 'd' && digit(5) && digit(6);
}

#endif  // TALP_FUZZ_FUZZ_INPUT_H_

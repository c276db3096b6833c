#ifndef TALP_FUZZ_FUZZ_INPUT_H_
#define TALP_FUZZ_FUZZ_INPUT_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bus/frame.h"
#include "master/perifcard.h"

// What the fuzz targets share. Each target defines this; libFuzzer and replay_main.cpp call it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

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

  // At most `count` bytes.
  std::string Bytes(std::size_t count) {
    std::string taken = bytes_.substr(at_, count);
    at_ += taken.size();
    return taken;
  }

 private:
  const std::string bytes_;
  std::size_t at_ = 0;
};

using CARDS = std::array<PERIFCARD, kAddressCount>;

// Cards of every kind, of none and of an unknown one. A discovery takes longer than most inputs,
// so there is one for all of them.
inline const CARDS& AllCards() {
  static const CARDS kCards = [] {
    CARDS cards;
    ApplyDiscoveryAnswer({'1', 0, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF, 77, 0, 3, 4, 5, 7}, cards.data());
    return cards;
  }();
  return kCards;
}

inline std::string TextOf(const BYTE_LIST& list) { return {list.begin(), list.end()}; }

#endif  // TALP_FUZZ_FUZZ_INPUT_H_

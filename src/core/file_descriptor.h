#ifndef TALP_CORE_FILE_DESCRIPTOR_H_
#define TALP_CORE_FILE_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

// Owns an open file descriptor and closes it. One thread at a time.
class FILE_DESCRIPTOR {
 public:
  // Takes over `number`, the result of open(2), socket(2) and the like; less than 0 is none.
  explicit FILE_DESCRIPTOR(int number = kNone) : number_(number) {}
  ~FILE_DESCRIPTOR() { Close(); }

  FILE_DESCRIPTOR(FILE_DESCRIPTOR&& other)
  noexcept : number_(std::exchange(other.number_, kNone)) {}
  FILE_DESCRIPTOR& operator=(FILE_DESCRIPTOR&& other) noexcept {
    std::swap(number_, other.number_);
    other.Close();
    return *this;
  }

  bool IsOpen() const { return number_ >= 0; }

  // For system calls; less than 0 if none is open. The caller must not close it.
  int Number() const { return number_; }

  void Close() {
    if (IsOpen()) close(number_);
    number_ = kNone;
  }

 private:
  static constexpr int kNone = -1;

  int number_;
};

#endif  // TALP_CORE_FILE_DESCRIPTOR_H_

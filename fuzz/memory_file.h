#ifndef TALP_FUZZ_MEMORY_FILE_H_
#define TALP_FUZZ_MEMORY_FILE_H_

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz_input.h"

// A document in a file that exists in memory only.
class MEMORY_FILE {
 public:
  MEMORY_FILE(const std::uint8_t* data, std::size_t size)
      : file_(memfd_create("talpconf.xml", MFD_CLOEXEC)) {
    Require(file_ >= 0, "there is a file in memory");
    Require(write(file_, data, size) == static_cast<ssize_t>(size), "the document is in the file");
  }
  ~MEMORY_FILE() { close(file_); }
  MEMORY_FILE(const MEMORY_FILE&) = delete;
  MEMORY_FILE& operator=(const MEMORY_FILE&) = delete;

  std::string Path() const { return "/proc/self/fd/" + std::to_string(file_); }

 private:
  const int file_;
};

#endif  // TALP_FUZZ_MEMORY_FILE_H_

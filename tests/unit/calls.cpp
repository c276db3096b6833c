#include "calls.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

int longPauses = 0;
time_t now = 0;
std::size_t mostWritten = 0;
HOOK whileOpening, whileReading, whileLogging;

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the library's are reserved
extern "C" {

int nanosleep(const timespec* pause, timespec* rest) {
  if (pause->tv_sec < kLongPause) return clock_nanosleep(CLOCK_MONOTONIC, 0, pause, rest);
  ++longPauses;
  return 0;
}

time_t time(time_t* result) noexcept {
  whileLogging.Run();
  timespec real{};
  clock_gettime(CLOCK_REALTIME, &real);
  const time_t told = now == 0 ? real.tv_sec : now;
  if (result != nullptr) *result = told;
  return told;
}

ssize_t write(int file, const void* bytes, std::size_t size) {
  return syscall(SYS_write, file, bytes, mostWritten == 0 ? size : std::min(size, mostWritten));
}

int listen(int socket, int backlog) noexcept {
  whileOpening.Run();
  return static_cast<int>(syscall(SYS_listen, socket, backlog));
}

ssize_t read(int file, void* bytes, std::size_t size) {
  whileReading.Run();
  return syscall(SYS_read, file, bytes, size);
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

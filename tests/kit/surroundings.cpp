// To be preloaded into the daemon. It waits for a reply by a number of read attempts, which take
// some tens of milliseconds; a busy machine may give the simulated bus its turn later than that.

#include <dlfcn.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

// One of very many attempts in vain waits until there is something to read, for 50 ms at most. A
// reply that never comes is so given up half a second later (150000 attempts), or a whole one.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's is reserved
extern "C" ssize_t read(int file, void* bytes, size_t size) {
  using READ = ssize_t (*)(int, void*, size_t);
  static const READ next = reinterpret_cast<READ>(dlsym(RTLD_NEXT, "read"));
  thread_local int inVain = 0;
  const ssize_t count = next(file, bytes, size);
  const int error = errno;
  inVain = count > 0 ? 0 : inVain + 1;
  pollfd polled = {file, POLLIN, 0};
  if (inVain % 15000 == 14999) poll(&polled, 1, 50);
  errno = error;
  return count;
}

// The clock is as many seconds off the real one as the file /run/clock_step says, if there is one.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's is reserved
extern "C" time_t time(time_t* result) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  long step = 0;
  FILE* const file = std::fopen("/run/clock_step", "re");
  if (file != nullptr) {
    char text[32] = "";
    if (std::fgets(text, sizeof text, file) != nullptr) step = std::strtol(text, nullptr, 10);
    std::fclose(file);
  }
  if (result != nullptr) *result = now.tv_sec + step;
  return now.tv_sec + step;
}

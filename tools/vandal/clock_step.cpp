// To be preloaded into the daemon: its clock is as many seconds off the real one as the file
// /run/clock_step says, from the moment that the file says it.

#include <time.h>

#include <cstdio>
#include <cstdlib>

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

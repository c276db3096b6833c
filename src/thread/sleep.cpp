#include "thread/sleep.h"

#include <time.h>
#include <unistd.h>

void Sleep(unsigned hundredNanoseconds) {
  constexpr unsigned kPerSecond = 10000000;
  timespec pause{};
  pause.tv_sec = static_cast<time_t>(hundredNanoseconds / kPerSecond);
  pause.tv_nsec = static_cast<long>(hundredNanoseconds % kPerSecond) * 100;
  nanosleep(&pause, nullptr);
}

void PauseMicroseconds(int microseconds) {
  if (microseconds > 0) usleep(static_cast<useconds_t>(microseconds));
}

#include "thread/sleep.h"

#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace {

// Linux ends a pause up to a timer slack late, by default 50 us (PR_SET_TIMERSLACK in prctl(2)):
// nothing to a pause of milliseconds, but fifty times one of 1 us. So a pause is never made late
// by more than its own length. The slack belongs to the thread and stays until a pause of another
// length comes, so it also counts for the idle time between two passes.
void BoundTimerSlack(int microseconds) {
  constexpr int kDefaultSlack = 50;
  thread_local int current = kDefaultSlack;
  const int wanted = std::clamp(microseconds, 1, kDefaultSlack);
  if (wanted == current) return;
  current = wanted;
  // 0 restores the default.
  prctl(PR_SET_TIMERSLACK,
        wanted == kDefaultSlack ? 0UL : static_cast<unsigned long>(wanted) * 1000);
}

}  // namespace

void Sleep(unsigned hundredNanoseconds) {
  constexpr unsigned kPerSecond = 10000000;
  timespec pause{};
  pause.tv_sec = static_cast<time_t>(hundredNanoseconds / kPerSecond);
  pause.tv_nsec = static_cast<long>(hundredNanoseconds % kPerSecond) * 100;
  nanosleep(&pause, nullptr);
}

void PauseMicroseconds(int microseconds) {
  BoundTimerSlack(microseconds);
  if (microseconds > 0) usleep(static_cast<useconds_t>(microseconds));
}

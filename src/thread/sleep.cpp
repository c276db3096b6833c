#include "thread/sleep.h"

#include <sched.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace {

// Linux ends a pause up to a timer slack late (PR_SET_TIMERSLACK in prctl(2)), by default 50 us:
// nothing to a pause of milliseconds, but fifty times one of 1 us. A pause shorter than that is
// allowed its own length, though not less than 10 us: an even shorter sleep is over before the
// processor gets to anything else, and the loops would take all of it. The slack belongs to the
// calling thread and is set only when it changes.
void BoundTimerSlack(int microseconds) {
  constexpr int kDefaultSlack = 50;
  constexpr int kLeastSlack = 10;
  thread_local int current = kDefaultSlack;
  const int wanted = std::clamp(microseconds, kLeastSlack, kDefaultSlack);
  if (wanted == current) return;
  current = wanted;
  const int nanoseconds = wanted == kDefaultSlack ? 0 : wanted * 1000;  // 0 restores the default
  prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(nanoseconds));
}

std::int64_t Nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

}  // namespace

void Sleep(unsigned hundredNanoseconds) {
  constexpr unsigned kPerSecond = 10000000;
  timespec pause{};
  pause.tv_sec = static_cast<time_t>(hundredNanoseconds / kPerSecond);
  pause.tv_nsec = static_cast<long>(hundredNanoseconds % kPerSecond) * 100;
  nanosleep(&pause, nullptr);
}

// A sleep takes tens of microseconds, many of them the processor's, however short it is meant to
// be. What is shorter than a microsecond is spent looking at the clock.
void IdleBetweenPasses(unsigned hundredNanoseconds) {
  constexpr unsigned kShortestSleep = 10;
  if (hundredNanoseconds >= kShortestSleep) {
    Sleep(hundredNanoseconds);
    return;
  }
  const std::int64_t end = Nanoseconds() + std::int64_t{100} * hundredNanoseconds;
  while (Nanoseconds() < end) continue;
}

void PauseMicroseconds(int microseconds) {
  BoundTimerSlack(microseconds);
  if (microseconds > 0) {
    usleep(static_cast<useconds_t>(microseconds));
  } else {
    sched_yield();  // a loop without a pause must not keep the processor from the bus's own driver
  }
}

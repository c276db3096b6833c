#include "thread/sleep.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>

namespace {

// In nanoseconds. Linux ends a sleep up to 50 microseconds late, the timer slack (PR_SET_TIMERSLACK
// in prctl(2)). With a smaller slack a short sleep still takes 20 microseconds, nearly all of it
// CPU time for arming the timer.
constexpr int kShortestSleep = 10000;

std::int64_t Nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

void SpinUntil(std::int64_t nanoseconds) {
  while (Nanoseconds() < nanoseconds) continue;
}

}  // namespace

void Sleep(unsigned hundredNanoseconds) {
  constexpr unsigned kPerSecond = 10000000;
  timespec pause{};
  pause.tv_sec = static_cast<time_t>(hundredNanoseconds / kPerSecond);
  pause.tv_nsec = static_cast<long>(hundredNanoseconds % kPerSecond) * 100;
  nanosleep(&pause, nullptr);
}

void IdleBetweenPasses(unsigned hundredNanoseconds) {
  if (hundredNanoseconds >= kShortestSleep / 100) {
    Sleep(hundredNanoseconds);
  } else {
    SpinUntil(Nanoseconds() + std::int64_t{100} * hundredNanoseconds);
  }
}

void PauseMicroseconds(int microseconds) {
  if (microseconds >= kShortestSleep / 1000) {
    usleep(static_cast<useconds_t>(microseconds));
    return;
  }
  // A loop without a sleep must let other threads run, such as the kernel's worker for the bus. The
  // yield counts as part of the pause.
  const std::int64_t start = Nanoseconds();
  sched_yield();
  SpinUntil(start + std::int64_t{1000} * microseconds);
}

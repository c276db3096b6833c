#ifndef TALP_BENCH_CLOCK_H_
#define TALP_BENCH_CLOCK_H_

#include <time.h>

#include <cstdint>

namespace bench {

constexpr std::int64_t kMicrosecond = 1000;
constexpr std::int64_t kMillisecond = 1000 * kMicrosecond;
constexpr std::int64_t kSecond = 1000 * kMillisecond;

// CLOCK_MONOTONIC in nanoseconds; the same clock in every process.
inline std::int64_t Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

inline void SleepFor(std::int64_t nanoseconds) {
  timespec pause{};
  pause.tv_sec = static_cast<time_t>(nanoseconds / kSecond);
  pause.tv_nsec = static_cast<long>(nanoseconds % kSecond);
  nanosleep(&pause, nullptr);
}

}  // namespace bench

#endif  // TALP_BENCH_CLOCK_H_

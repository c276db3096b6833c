#ifndef TALP_BENCH_TIMING_H_
#define TALP_BENCH_TIMING_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace bench {

constexpr std::int64_t kMicrosecond = 1000;
constexpr std::int64_t kMillisecond = 1000 * kMicrosecond;
constexpr std::int64_t kSecond = 1000 * kMillisecond;

// In nanoseconds, of a clock that is never set.
std::int64_t Now();

void SleepFor(std::int64_t nanoseconds);

// Gives the calling thread a real-time priority (sched(7)), so that what measures does not wait
// for what is measured. Threads and processes that it creates do not inherit it. Where the system
// does not allow it, the figures hold the measurer's own delays too.
void RaisePriority();

// A moment that one thread notes and another waits for.
class MOMENT {
 public:
  void Note();

  // Returns the next moment noted, or 0 if none is noted within seconds.
  std::int64_t Await();

 private:
  std::mutex mutex_;
  std::condition_variable noted_;
  std::int64_t at_ = 0;
};

}  // namespace bench

#endif  // TALP_BENCH_TIMING_H_

#include "pause_model.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <thread>

#include "clock.h"

namespace bench {

namespace {

constexpr int kTrials = 20000;
constexpr int kIdleTime = 100;  // nanoseconds, of a task thread after each pass

std::int64_t Timed(void (*pause)(int), int argument) {
  const std::int64_t start = Now();
  pause(argument);
  return Now() - start;
}

// What is left of a cycle at a random moment: a long cycle is met more often than a short one.
class RANDOM_PHASE {
 public:
  explicit RANDOM_PHASE(const SAMPLES& cycles) : ends_(cycles.size()) {
    std::partial_sum(cycles.begin(), cycles.end(), ends_.begin());
  }

  std::int64_t Draw(std::mt19937_64* random) const {
    const auto moment =
        static_cast<std::int64_t>((*random)() % static_cast<std::uint64_t>(ends_.back()));
    return *std::upper_bound(ends_.begin(), ends_.end(), moment) - moment;
  }

 private:
  SAMPLES ends_;
};

SAMPLES SumOfPhases(const std::vector<const SAMPLES*>& loops) {
  std::mt19937_64 random(1);
  SAMPLES sums(kTrials, 0);
  for (const SAMPLES* loop : loops) {
    const RANDOM_PHASE phase(*loop);
    for (std::int64_t& sum : sums) sum += phase.Draw(&random);
  }
  return sums;
}

}  // namespace

int DelayOf(int speed) { return (500000 - speed * 4999) / 99; }

PAUSES MeasurePauses(int delayMicroseconds, long timerSlack, int count) {
  PAUSES pauses;
  // A thread of its own, since the slack is a property of the thread.
  std::thread([&] {
    prctl(PR_SET_TIMERSLACK, timerSlack);
    for (int i = 0; i < count; ++i) {
      pauses.delay.push_back(
          Timed([](int us) { usleep(static_cast<useconds_t>(us)); }, delayMicroseconds));
      pauses.idle.push_back(Timed([](int ns) { SleepFor(ns); }, kIdleTime));
    }
  }).join();
  return pauses;
}

DESIGN::DESIGN(const PAUSES& pauses, int cards, std::int64_t exchange)
    : master_(pauses.delay), task_(pauses.delay), serial_(pauses.delay), cards_(cards) {
  for (std::int64_t& cycle : task_) cycle += kIdleTime;
  for (std::int64_t& cycle : serial_) cycle += kIdleTime + cards * exchange;
}

SAMPLES DESIGN::ThreeLoops() const { return SumOfPhases({&serial_, &master_, &task_}); }

SAMPLES DESIGN::TwoLoops() const { return SumOfPhases({&master_, &task_}); }

double DESIGN::ExchangeRate() const {
  const auto total = std::accumulate(serial_.begin(), serial_.end(), std::int64_t{0});
  return static_cast<double>(cards_) * static_cast<double>(serial_.size()) *
         static_cast<double>(kSecond) / static_cast<double>(total);
}

}  // namespace bench

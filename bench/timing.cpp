#include "timing.h"

#include <sched.h>

#include <chrono>
#include <thread>

namespace bench {

std::int64_t Now() {
  return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void SleepFor(std::int64_t nanoseconds) {
  std::this_thread::sleep_for(std::chrono::nanoseconds(nanoseconds));
}

void RaisePriority() {
  sched_param parameter{};
  parameter.sched_priority = 10;
  sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameter);
}

void MOMENT::Note() {
  const std::int64_t now = Now();
  const std::lock_guard<std::mutex> lock(mutex_);
  at_ = now;
  noted_.notify_one();
}

std::int64_t MOMENT::Await() {
  std::unique_lock<std::mutex> lock(mutex_);
  noted_.wait_for(lock, std::chrono::seconds(3), [this] { return at_ != 0; });
  const std::int64_t at = at_;
  at_ = 0;
  return at;
}

}  // namespace bench

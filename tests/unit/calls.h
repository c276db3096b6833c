#ifndef TALP_TESTS_UNIT_CALLS_H_
#define TALP_TESTS_UNIT_CALLS_H_

#include <time.h>

#include <cstddef>
#include <functional>
#include <mutex>
#include <utility>

// What calls.cpp does in place of the C library.

// What happens once, during the next call. Any thread.
class HOOK {
 public:
  HOOK& operator=(std::function<void()> action) {
    const std::lock_guard<std::mutex> guard(lock_);
    action_ = std::move(action);
    isDone_ = false;
    return *this;
  }

  void Run() {
    std::function<void()> action;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      action.swap(action_);
    }
    if (!action) return;
    action();
    const std::lock_guard<std::mutex> guard(lock_);
    isDone_ = true;
  }

  bool IsDone() {
    const std::lock_guard<std::mutex> guard(lock_);
    return isDone_;
  }

 private:
  std::mutex lock_;
  bool isDone_ = false;
  std::function<void()> action_;
};

constexpr int kLongPause = 1000;  // seconds; longer than any other pause of the test program

extern int longPauses;           // nanosleep: of so many seconds, counted and not made
extern time_t now;               // time: unless 0
extern std::size_t mostWritten;  // write: so many bytes at a time, unless 0
extern HOOK whileOpening;        // listen
extern HOOK whileReading;        // read
extern HOOK whileLogging;        // time, by which each line of the log begins

#endif  // TALP_TESTS_UNIT_CALLS_H_

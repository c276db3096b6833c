#include "thread/mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support.h"

namespace {

TEST(Mutex, UnlockByAnotherThreadLeavesItLocked) {
  CMutexClass mutex;
  std::atomic<bool> tried{false};
  std::atomic<bool> entered{false};
  mutex.Lock();
  std::thread other([&] {
    mutex.Unlock();
    tried = true;
    MUTEX_GUARD guard(&mutex);
    entered = true;
  });
  EXPECT_TRUE(ComesTrue([&] { return tried.load(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(entered);
  mutex.Lock();
  mutex.Unlock();  // one for both
  other.join();
  EXPECT_TRUE(entered);
}

}  // namespace

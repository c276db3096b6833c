#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <string>
#include <thread>

#include "support.h"
#include "thread/cthread.h"
#include "thread/mutex.h"
#include "thread/sleep.h"

namespace {

// Its items are texts. "!" ends it. Its pause is negative: none. Its thread runs for some
// microseconds before the type is set.
class WORKER final : public CThread {
 public:
  explicit WORKER(ThreadType_t type, int before = 0) {
    PauseMicroseconds(before);
    SetThreadType(type, -1);
  }
  ~WORKER() { Stop(); }

  bool OnTask(void* item) override {
    taken += static_cast<const char*>(item);
    const bool goOn = taken.back() != '!';
    if (!goOn) ++ends;
    return goOn;
  }

  bool OnTask() override {
    ++passes;
    return true;
  }

  std::string taken;
  std::atomic<int> ends{0};
  std::atomic<int> passes{0};
};

TEST(CThread, StoreHolds99ItemsNewestFirst) {
  char last[] = "!";
  char other[] = "x";
  WORKER worker(ThreadType_t::EventDriven);
  EXPECT_TRUE(
      ComesTrue([&] { return worker.Event(static_cast<void*>(nullptr)) && worker.passes; }));
  EXPECT_TRUE(worker.Event(last) && ComesTrue([&] { return worker.ends == 1; }));
  worker.Stop();
  for (int i = 0; i < 99; ++i) EXPECT_TRUE(worker.Push(i == 0 ? last : other));
  EXPECT_FALSE(worker.Push(other));
  EXPECT_TRUE(worker.Start() && ComesTrue([&] { return worker.ends == 2; }));
  EXPECT_TRUE(ComesTrue([&] { return worker.ThreadState() == THREAD_STATE::kDown; }));
  EXPECT_EQ("!" + std::string(98, 'x') + "!", worker.taken);
  EXPECT_TRUE(worker.Push(nullptr) && worker.Empty());
}

// In its pass, after which it stops itself.
class SELF_STOPPER final : public CThread {
 public:
  SELF_STOPPER() { SetThreadType(ThreadType_t::IntervalDriven, 0); }
  ~SELF_STOPPER() { CThread::Stop(); }

  bool OnTask() override {
    busy = ThreadState() == THREAD_STATE::kBusy && PingThread(1);
    CThread::Stop();
    return true;
  }

  std::atomic<bool> busy{false};
};

TEST(CThread, StatesAndErrors) {
  char item[] = "x";
  SELF_STOPPER stopped;
  EXPECT_TRUE(ComesTrue([&] { return stopped.busy.load(); }));
  EXPECT_TRUE(ComesTrue([&] { return stopped.ThreadState() == THREAD_STATE::kDown; }));
  EXPECT_FALSE(stopped.PingThread(20));
  EXPECT_EQ(kErrorIllegalEvent, stopped.ErrorFlags());  // a stop of an interval-driven thread

  WORKER interval(ThreadType_t::IntervalDriven);
  EXPECT_TRUE(interval.PingThread(0));
  EXPECT_EQ(0U, interval.ErrorFlags());
  EXPECT_FALSE(interval.Event(item));
  EXPECT_EQ(kErrorIllegalEvent, interval.ErrorFlags());
  EXPECT_TRUE(interval.Empty());

  WORKER waiting(ThreadType_t::EventDriven);
  EXPECT_TRUE(ComesTrue([&] { return waiting.ThreadState() == THREAD_STATE::kWaiting; }));
  waiting.Stop();
  EXPECT_EQ(0U, waiting.ErrorFlags());
  EXPECT_EQ(THREAD_STATE::kDown, waiting.ThreadState());
}

// The pending items are a pass, and one without them is another.
TEST(CThread, ItemsOrNone) {
  char first[] = "1";
  char second[] = "2";
  WORKER worker(ThreadType_t::EventDriven);
  worker.Stop();
  EXPECT_TRUE(worker.Push(first) && worker.Push(second) && worker.Start());
  EXPECT_TRUE(ComesTrue([&] { return worker.Empty() && worker.PingThread(0); }));
  EXPECT_TRUE(worker.Event(static_cast<void*>(nullptr)));
  EXPECT_TRUE(ComesTrue([&] { return worker.passes == 1; }));
  worker.Stop();
  EXPECT_EQ("21", worker.taken);
}

class TASK final : public CTask {
 public:
  bool Task() override {
    ranAs = pthread_self();
    seen = status;
    return true;
  }
  pthread_t ranAs = 0;
  TASK_STATUS seen = TASK_STATUS::kNew;
};

TEST(CThread, BaseRunsTasksAndSaysThatItIsAlive) {
  TASK task;
  testing::internal::CaptureStdout();
  {
    CThread thread;
    EXPECT_TRUE(thread.PingThread(0) && thread.Event(&task));
    EXPECT_TRUE(ComesTrue([&] {
      const MUTEX_GUARD guard(&task.lock);
      return task.status == TASK_STATUS::kDone;
    }));
    EXPECT_TRUE(thread.OnTask());
  }
  EXPECT_EQ("\nthread is alive\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(TASK_STATUS::kProcessing, task.seen);
  EXPECT_EQ(task.threadId, task.ranAs);
}

TEST(CMutexClass, NestedLockIsNotCountedAndOnlyTheOwnerUnlocks) {
  CMutexClass mutex;
  mutex.Lock();
  mutex.Lock();
  std::atomic<bool> locked{false};
  std::thread other([&] {
    mutex.Unlock();
    mutex.Lock();
    locked = true;
    mutex.Unlock();
  });
  EXPECT_FALSE(ComesTrue([&] { return locked.load(); }, 20));
  mutex.Unlock();
  other.join();
  EXPECT_TRUE(locked);
}

// Right after its start a thread may have come to its wait or not; later it has.
TEST(CThread, SwitchIsNeverMissed) {
  WORKER waits(ThreadType_t::EventDriven, 20000);
  waits.SetThreadType(ThreadType_t::IntervalDriven, 0);
  EXPECT_TRUE(ComesTrue([&] { return waits.passes > 0; }));
  for (int i = 0; i < 500; ++i) {
    WORKER worker(ThreadType_t::IntervalDriven, i);
    ASSERT_TRUE(ComesTrue([&] { return worker.passes > 0; })) << i;
    WORKER endsAtOnce(ThreadType_t::EventDriven);
  }
}

// Taken for an unsigned number, this would be a pause of more than an hour.
TEST(Pauses, NegativeIsNone) { PauseMicroseconds(INT_MIN); }

}  // namespace

#include "thread/cthread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "support.h"
#include "thread/mutex.h"
#include "thread/sleep.h"

namespace {

void* Item(const char* name) { return const_cast<char*>(name); }

// Notes the names of its items. The item "hold" keeps it busy until it is let go, the item "end"
// ends it.
class WORKER final : public CThread {
 public:
  explicit WORKER(ThreadType_t type = EventDriven, long idle = 100) { SetThreadType(type, idle); }
  ~WORKER() { Stop(); }

  bool OnTask(void* item) override {
    const std::string name = static_cast<const char*>(item);
    if (name == "hold") {
      held = true;
      letGo.get_future().wait();
    }
    MUTEX_GUARD guard(&lock_);
    names_ += name + " ";
    return name != "end";
  }

  bool OnTask() override {
    ++passes;
    if (stopSelf) Stop();
    return true;
  }

  // Keeps the thread in a pass until letGo is set. An Event that finds the pass begun waits for its
  // end, so it is called on a thread of its own.
  void Hold() {
    event_ = std::async(std::launch::async, [this] { return Event(Item("hold")); });
    ASSERT_TRUE(ComesTrue([this] { return held.load(); }));
  }

  std::string Names() {
    MUTEX_GUARD guard(&lock_);
    return names_;
  }

  std::atomic<int> passes{0};
  std::atomic<bool> held{false};
  std::atomic<bool> stopSelf{false};
  std::promise<void> letGo;

 private:
  std::future<bool> event_;
  CMutexClass lock_;
  std::string names_;
};

TEST(CThread, StoreHolds99ItemsNewestFirst) {
  WORKER worker;
  worker.Hold();
  for (const char* name : {"a", "b"}) EXPECT_TRUE(worker.Push(Item(name)));
  for (int i = 3; i <= 99; ++i) EXPECT_TRUE(worker.Push(Item("x"))) << i;
  EXPECT_TRUE(worker.Push(nullptr));
  EXPECT_FALSE(worker.Push(Item("y")));
  EXPECT_FALSE(worker.Event(Item("y")));
  EXPECT_EQ(99U, worker.GetEventsPending());
  EXPECT_EQ(kThreadBusy, worker.ThreadState());
  worker.letGo.set_value();
  const std::string names = "hold " + Replaced(std::string(97, 'x'), "x", "x ") + "b a ";
  EXPECT_TRUE(ComesTrue([&] { return worker.Names() == names; })) << worker.Names();
  EXPECT_TRUE(ComesTrue([&] { return worker.ThreadState() == kThreadWaiting; }));
  EXPECT_EQ(0U, worker.ErrorFlags());
  EXPECT_TRUE(worker.Event(Item("y")));
  EXPECT_TRUE(ComesTrue([&] { return worker.Names() == names + "y "; }));
}

TEST(CThread, IntervalDrivenTakesNoEvents) {
  WORKER worker(IntervalDriven, -1);
  worker.SetIdle(-1);
  EXPECT_TRUE(ComesTrue([&] { return worker.passes > 100; }));
  EXPECT_TRUE(worker.Push(Item("hold")));
  ASSERT_TRUE(ComesTrue([&] { return worker.held.load(); }));
  EXPECT_FALSE(worker.Event(Item("x")));
  EXPECT_EQ(kThreadFault, worker.ThreadState());
  EXPECT_EQ(0x10U, worker.ErrorFlags());
  worker.letGo.set_value();
  EXPECT_TRUE(ComesTrue([&] { return worker.ThreadState() != kThreadFault; }));
  EXPECT_EQ("hold ", worker.Names());
}

// Switched over right after its start, when it may not have come to its wait yet.
TEST(CThread, SwitchIsNeverMissed) {
  for (int i = 0; i < 500; ++i) {
    WORKER worker(IntervalDriven, 1);
    ASSERT_TRUE(ComesTrue([&] { return worker.passes > 0; })) << i;
  }
  for (int i = 0; i < 500; ++i) WORKER worker;
}

TEST(CThread, StopsAndStartsAgain) {
  WORKER worker;
  EXPECT_TRUE(worker.PingThread(0));
  for (std::size_t round = 0; round < 3; ++round) {
    worker.Stop();
    EXPECT_EQ(kThreadDown, worker.ThreadState());
    EXPECT_FALSE(worker.PingThread(500));
    EXPECT_TRUE(worker.Start() && worker.Start());
    EXPECT_TRUE(worker.PingThread(0));
    EXPECT_TRUE(worker.Event(Item("x")));
    EXPECT_TRUE(ComesTrue([&] { return worker.Names() == std::string("x x x ", 2 * round + 2); }));
  }
  worker.stopSelf = true;
  worker.SetThreadType(IntervalDriven, 1);
  EXPECT_TRUE(ComesTrue([&] { return worker.ThreadState() == kThreadDown; }));
}

TEST(CThread, ItemEndsThread) {
  WORKER worker;
  worker.Hold();
  for (const char* name : {"last", "end"}) worker.Push(Item(name));
  worker.letGo.set_value();
  EXPECT_TRUE(ComesTrue([&] { return worker.ThreadState() == kThreadDown; }));
  EXPECT_EQ("hold end ", worker.Names());
  EXPECT_EQ(1U, worker.GetEventsPending());
}

TEST(CThread, TaskIsStampedAndRun) {
  struct : CTask {
    bool Task() override {
      ranOn = status == kTaskProcessing ? pthread_self() : 0;
      return true;
    }
    pthread_t ranOn = 0;
  } task;
  CThread thread;
  ASSERT_TRUE(thread.PingThread(0) && thread.Event(&task));
  EXPECT_TRUE(ComesTrue([&] {
    MUTEX_GUARD guard(&task.lock);
    return task.status == kTaskDone;
  }));
  EXPECT_EQ(task.ranOn, task.threadId);
}

// Taken for an unsigned number, this would be a pause of more than an hour.
TEST(Pauses, NegativeIsNone) { PauseMicroseconds(-2147483647 - 1); }

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

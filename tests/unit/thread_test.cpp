#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <string>

#include "support.h"
#include "thread/cthread.h"
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
  char last[] = "!", other[] = "x";
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
}

// Right after its start a thread may have come to its wait or not.
TEST(CThread, SwitchIsNeverMissed) {
  for (int i = 0; i < 500; ++i) {
    WORKER worker(ThreadType_t::IntervalDriven, i);
    ASSERT_TRUE(ComesTrue([&] { return worker.passes > 0; })) << i;
    WORKER endsAtOnce(ThreadType_t::EventDriven);
  }
}

// Taken for an unsigned number, this would be a pause of more than an hour.
TEST(Pauses, NegativeIsNone) { PauseMicroseconds(INT_MIN); }

}  // namespace

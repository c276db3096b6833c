#include "thread/sleep.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>

namespace {

// What short pauses may be late, and that long ones get the slack back that the process started
// with, whatever that is.
TEST(Sleep, TimerSlackFollowsThePause) {
  PauseMicroseconds(51);  // another test may have left this thread with less
  const int initial = prctl(PR_GET_TIMERSLACK);
  const struct {
    int pause;  // microseconds
    int slack;  // nanoseconds
  } kCases[] = {{1, 10000}, {49, 49000}, {51, initial}, {1, 10000}, {2525, initial}};
  for (const auto& c : kCases) {
    PauseMicroseconds(c.pause);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK), c.slack) << c.pause;
  }
}

}  // namespace

#include "bus/tlqueue.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "support.h"

namespace {

// Two threads put, one takes: what each of them put comes whole, complete and in its order.
TEST(TlQueue, TwoProducers) {
  constexpr int kCount = 10000;
  TLQUEUE queue;
  EXPECT_TRUE(queue.DeQueue().empty());
  const auto produce = [&queue](char name) {
    for (int i = 0; i < kCount; ++i) queue.ToQueue(ListOf(name + std::to_string(i)));
  };
  std::thread first(produce, 'a');
  std::thread second(produce, 'b');
  int taken[2] = {0, 0};
  while (taken[0] + taken[1] < 2 * kCount) {
    if (queue.IsEmpty()) continue;
    const std::string text = TextOf(queue.DeQueue());
    int* const next = &taken[text[0] == 'a' ? 0 : 1];
    if (text.substr(1) != std::to_string((*next)++)) ADD_FAILURE() << text;
  }
  first.join();
  second.join();
  EXPECT_EQ(kCount, taken[0]);
}

}  // namespace

#ifndef TALP_BUS_TLQUEUE_H_
#define TALP_BUS_TLQUEUE_H_

#include <deque>
#include <string>

#include "core/byte_list.h"
#include "thread/mutex.h"

// First in, first out, from any number of threads to one: the only hand-over point for traffic
// between threads. It has no limit, drops nothing and never waits. Each queue has exactly one
// thread that takes from it; that thread may ask IsEmpty first and be sure of the answer.
class TLQUEUE {
 public:
  // Appends a copy of `list`. Any thread.
  void ToQueue(const BYTE_LIST& list);

  // Takes the oldest list; an empty one if nothing is queued. The consuming thread only.
  BYTE_LIST DeQueue();

  // Any thread.
  bool IsEmpty();

 private:
  CMutexClass lock_;
  // Kept as strings, because a list takes 32 bytes for each of its own, and what waits may be much.
  std::deque<std::string> items_;
};

#endif  // TALP_BUS_TLQUEUE_H_

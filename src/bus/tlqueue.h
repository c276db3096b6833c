#ifndef TALP_BUS_TLQUEUE_H_
#define TALP_BUS_TLQUEUE_H_

#include <deque>
#include <string>

#include "core/byte_list.h"
#include "thread/mutex.h"

// First in, first out, from any number of threads to one: all traffic between threads passes
// through such queues. A queue has no limit, drops nothing and never waits. Only one thread takes
// from it, so for that thread an IsEmpty that returns false stays valid until its DeQueue.
class TLQUEUE {
 public:
  // Appends a copy of `list`. Any thread.
  void ToQueue(const BYTE_LIST& list);

  // Takes the oldest list; an empty one if nothing is queued. The consuming thread only.
  BYTE_LIST DeQueue();

  // Any thread.
  bool IsEmpty() const;

 private:
  mutable CMutexClass lock_;
  // A list node takes 32 bytes per byte, so queued messages are stored as strings.
  std::deque<std::string> items_;
};

#endif  // TALP_BUS_TLQUEUE_H_

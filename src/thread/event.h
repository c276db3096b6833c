#ifndef TALP_THREAD_EVENT_H_
#define TALP_THREAD_EVENT_H_

#include <pthread.h>

// A condition variable with its mutex. It has no signalled state: a Set while nobody waits is lost.
// A waiter that must not miss a change passes a check for it to WaitUnless.
class CEventClass {
 public:
  CEventClass();
  ~CEventClass();
  CEventClass(const CEventClass&) = delete;
  CEventClass& operator=(const CEventClass&) = delete;

  // Wakes one waiter. Blocks while a woken thread is between its Wait and its Reset; that thread
  // itself must not call Set.
  void Set();

  // Waits for a Set and returns true with the mutex locked; Reset unlocks it.
  bool Wait();

  // The same, but does not wait if `ready(context)`, called with the mutex held, is true. A change
  // that is followed by a Set is never missed.
  bool WaitUnless(bool (*ready)(void* context), void* context);

  // Unlocks the mutex that the calling thread's wait left locked.
  void Reset();

  const bool created;

 private:
  pthread_cond_t condition_;
  pthread_mutex_t mutex_;
  unsigned sets_ = 0;  // counts Sets, to detect spurious wake-ups
};

#endif  // TALP_THREAD_EVENT_H_

#ifndef TALP_THREAD_EVENT_H_
#define TALP_THREAD_EVENT_H_

#include <pthread.h>

// A condition variable with its mutex. It keeps no signalled state: a Set while nobody waits is
// lost, so a waiter passes what else it waits for to WaitUnless. Only a Set ends a wait.
class CEventClass {
 public:
  CEventClass();
  ~CEventClass();
  CEventClass(const CEventClass&) = delete;
  CEventClass& operator=(const CEventClass&) = delete;

  // Wakes one waiter. Blocks while a woken thread is between its Wait and its Reset. Any thread
  // but that one.
  void Set();

  // Waits for a Set and returns true with the mutex locked; Reset unlocks it.
  bool Wait();

  // The same, but does not wait if `ready(context)`, asked under the mutex, is already true. A
  // change that is made before a Set is thus never missed.
  bool WaitUnless(bool (*ready)(void* context), void* context);

  // Unlocks the mutex that a wait left locked; the same thread.
  void Reset();

  const bool created;

 private:
  pthread_cond_t condition_;
  pthread_mutex_t mutex_;
  unsigned sets_ = 0;  // told apart from a wake-up without a cause, which POSIX allows
};

#endif  // TALP_THREAD_EVENT_H_

#ifndef TALP_THREAD_MUTEX_H_
#define TALP_THREAD_MUTEX_H_

#include <pthread.h>

#include <atomic>

// A mutex that records its owner. A nested Lock by the owner does nothing and is not counted: the
// first Unlock releases the mutex, so code must not nest locks. An Unlock by another thread does
// nothing. Any thread.
class CMutexClass {
 public:
  CMutexClass();
  ~CMutexClass();
  CMutexClass(const CMutexClass&) = delete;
  CMutexClass& operator=(const CMutexClass&) = delete;

  void Lock();
  void Unlock();

  const bool created;

 private:
  pthread_mutex_t mutex_;
  // Read without the mutex, which is safe: a thread can find its own id here only if it is the
  // owner.
  std::atomic<pthread_t> owner_{0};
};

// Holds a CMutexClass for a scope.
class MUTEX_GUARD {
 public:
  explicit MUTEX_GUARD(CMutexClass* mutex) : mutex_(mutex) { mutex_->Lock(); }
  ~MUTEX_GUARD() { mutex_->Unlock(); }
  MUTEX_GUARD(const MUTEX_GUARD&) = delete;
  MUTEX_GUARD& operator=(const MUTEX_GUARD&) = delete;

 private:
  CMutexClass* const mutex_;
};

#endif  // TALP_THREAD_MUTEX_H_

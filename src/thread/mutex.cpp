#include "thread/mutex.h"

CMutexClass::CMutexClass() : created(pthread_mutex_init(&mutex_, nullptr) == 0) {}

CMutexClass::~CMutexClass() {
  Lock();
  Unlock();
  pthread_mutex_destroy(&mutex_);
}

void CMutexClass::Lock() {
  const pthread_t self = pthread_self();
  if (owner_.load(std::memory_order_relaxed) == self) return;
  pthread_mutex_lock(&mutex_);
  owner_.store(self, std::memory_order_relaxed);
}

void CMutexClass::Unlock() {
  if (owner_.load(std::memory_order_relaxed) != pthread_self()) return;
  owner_.store(0, std::memory_order_relaxed);
  pthread_mutex_unlock(&mutex_);
}

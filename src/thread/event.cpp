#include "thread/event.h"

CEventClass::CEventClass()
    : created(pthread_cond_init(&condition_, nullptr) == 0 &&
              pthread_mutex_init(&mutex_, nullptr) == 0) {}

CEventClass::~CEventClass() {
  pthread_cond_destroy(&condition_);
  pthread_mutex_destroy(&mutex_);
}

void CEventClass::Set() {
  pthread_mutex_lock(&mutex_);
  ++sets_;
  pthread_mutex_unlock(&mutex_);
  pthread_cond_signal(&condition_);
}

bool CEventClass::Wait() {
  return WaitUnless([](void*) { return false; }, nullptr);
}

bool CEventClass::WaitUnless(bool (*ready)(void* context), void* context) {
  pthread_mutex_lock(&mutex_);
  for (const unsigned seen = sets_; seen == sets_ && !ready(context);) {
    pthread_cond_wait(&condition_, &mutex_);
  }
  return true;
}

void CEventClass::Reset() { pthread_mutex_unlock(&mutex_); }

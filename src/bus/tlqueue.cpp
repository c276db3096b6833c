#include "bus/tlqueue.h"

#include <utility>

void TLQUEUE::ToQueue(const BYTE_LIST& list) {
  BYTE_LIST copy(list);
  MUTEX_GUARD guard(&lock_);
  items_.push_back(std::move(copy));
}

BYTE_LIST TLQUEUE::DeQueue() {
  MUTEX_GUARD guard(&lock_);
  if (items_.empty()) return {};
  BYTE_LIST front = std::move(items_.front());
  items_.pop_front();
  return front;
}

bool TLQUEUE::IsEmpty() {
  MUTEX_GUARD guard(&lock_);
  return items_.empty();
}

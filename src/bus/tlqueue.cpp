#include "bus/tlqueue.h"

#include <utility>

void TLQUEUE::ToQueue(const BYTE_LIST& list) {
  std::string copy(list.begin(), list.end());
  MUTEX_GUARD guard(&lock_);
  items_.push_back(std::move(copy));
}

BYTE_LIST TLQUEUE::DeQueue() {
  std::string front;
  {
    MUTEX_GUARD guard(&lock_);
    if (items_.empty()) return {};
    front = std::move(items_.front());
    items_.pop_front();
  }
  return BYTE_LIST(front.begin(), front.end());
}

bool TLQUEUE::IsEmpty() const {
  MUTEX_GUARD guard(&lock_);
  return items_.empty();
}

#ifndef TALP_THREAD_SHARED_H_
#define TALP_THREAD_SHARED_H_

#include <atomic>

// A scalar that one thread at a time writes while others read it, without a lock: connection
// states, delays, switches, the signal flag. Unlike std::atomic it can be copied, so that records
// with such a member can be copied too. A store publishes what was written before it. Any thread,
// and signal handlers.
template <typename T>
class SHARED {
 public:
  SHARED(T value = T()) : value_(value) {}
  SHARED(const SHARED& other) : value_(T(other)) {}

  SHARED& operator=(const SHARED& other) {
    *this = T(other);
    return *this;
  }
  SHARED& operator=(T value) {
    value_.store(value, std::memory_order_release);
    return *this;
  }

  operator T() const { return value_.load(std::memory_order_acquire); }

 private:
  static_assert(std::atomic<T>::is_always_lock_free);

  std::atomic<T> value_;
};

#endif  // TALP_THREAD_SHARED_H_

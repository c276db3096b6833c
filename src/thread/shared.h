#ifndef TALP_THREAD_SHARED_H_
#define TALP_THREAD_SHARED_H_

#include <atomic>

// A scalar that one thread at a time writes while others read it, without a lock: connection
// states, delays, switches, the signal flag. Reads like a plain value and, unlike std::atomic, can
// be copied, so that the records that hold it stay plain records. A store publishes what was
// written before it. Any thread, and signal handlers where T is an int.
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

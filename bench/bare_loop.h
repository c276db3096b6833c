#ifndef TALP_BENCH_BARE_LOOP_H_
#define TALP_BENCH_BARE_LOOP_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace bench {

// The bare limit: a process that polls `cards` input cards on a tty as fast as it can and does
// nothing else. Like the daemon it waits for a reply by reading without a pause.
class BARE_LOOP {
 public:
  // Throws std::runtime_error if the process cannot be created.
  BARE_LOOP(const std::string& device, int cards);
  ~BARE_LOOP();
  BARE_LOOP(const BARE_LOOP&) = delete;
  BARE_LOOP& operator=(const BARE_LOOP&) = delete;

  // Waits until the loop finds a card's state changed; returns when it did, 0 if it did not
  // within `timeout` milliseconds.
  std::int64_t WaitForChange(int timeout);

 private:
  pid_t process_ = -1;
  int notices_ = -1;
};

}  // namespace bench

#endif  // TALP_BENCH_BARE_LOOP_H_

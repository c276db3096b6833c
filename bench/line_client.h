#ifndef TALP_BENCH_LINE_CLIENT_H_
#define TALP_BENCH_LINE_CLIENT_H_

#include <cstdint>
#include <string>

namespace bench {

// A client of one of the daemon's TCP interfaces. Operations throw std::runtime_error when the
// daemon does not do its part within seconds.
class LINE_CLIENT {
 public:
  // Connects and waits for the greeting to be over.
  LINE_CLIENT(int port, const std::string& endOfGreeting);
  ~LINE_CLIENT();
  LINE_CLIENT(const LINE_CLIENT&) = delete;
  LINE_CLIENT& operator=(const LINE_CLIENT&) = delete;

  void Send(const std::string& text);

  // Waits until `text` has come; returns when it did, or 0 if it does not come within seconds.
  // What came before it is dropped.
  std::int64_t WaitFor(const std::string& text);

 private:
  void Connect(int port);

  int socket_ = -1;
  std::string received_;
};

}  // namespace bench

#endif  // TALP_BENCH_LINE_CLIENT_H_

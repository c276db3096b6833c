#ifndef TALP_TOOLS_MQTT_LOOKUP_H_
#define TALP_TOOLS_MQTT_LOOKUP_H_

#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace mqtt {

// One of the addresses of a host.
struct ADDRESS {
  sockaddr_storage bytes;
  socklen_t size;
  std::string text;  // as people write it
};

struct LOOKUP_RESULT {
  std::vector<ADDRESS> addresses;  // the most suitable first
  std::string trouble;             // why there are none
};

// Looks up a host of any family, for TCP. Blocks unless `isNumeric`, which takes an address only.
// Any thread.
LOOKUP_RESULT Lookup(const std::string& host, int port, bool isNumeric);

// The address at the other end of a connected socket, as people write it.
std::string PeerOf(int socket);

// Has work that blocks done by a thread of its own. Nobody waits for it: it must own all that it
// uses, and a process that ends meanwhile must leave by std::_Exit(). One thread but for the work.
template <typename RESULT>
class BACKGROUND {
 public:
  BACKGROUND() = default;
  BACKGROUND(const BACKGROUND&) = delete;
  BACKGROUND& operator=(const BACKGROUND&) = delete;
  ~BACKGROUND() {
    if (IsBusy()) thread_.detach();
  }

  // True from Start() until its result has been taken.
  bool IsBusy() const { return thread_.joinable(); }

  // Not while it is busy. A `work` that throws ends the process.
  template <typename WORK>
  void Start(WORK work) {
    std::promise<RESULT> promise;
    result_ = promise.get_future();
    thread_ =
        std::thread([work, result = std::move(promise)]() mutable { result.set_value(work()); });
  }

  // The result, as soon as there is one.
  std::optional<RESULT> Take() {
    if (!IsBusy() || result_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      return std::nullopt;
    }
    thread_.join();
    return result_.get();
  }

  // Interrupts a system call of the work that takes long. The process handles SIGUSR1.
  void Interrupt() { pthread_kill(thread_.native_handle(), SIGUSR1); }

 private:
  std::future<RESULT> result_;
  std::thread thread_;
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_LOOKUP_H_

#ifndef TALP_BENCH_CARD_BUS_H_
#define TALP_BENCH_CARD_BUS_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "timing.h"

namespace bench {

constexpr int kAddresses = 16;
constexpr int kOutputCard = 15;  // the address of the output card

// A card bus of digital cards on a pty, answered by a thread of its own at real-time priority. It
// waits in read(2), so that it takes no CPU time away from what is measured, and notes when what
// passed. It does its own framing: a mistake shared with the daemon would not be seen.
class CARD_BUS {
 public:
  // Input cards at the addresses below `inputs` and, if there are any, an output card. Throws
  // std::runtime_error if there is no pty to be had.
  explicit CARD_BUS(int inputs);
  ~CARD_BUS();
  CARD_BUS(const CARD_BUS&) = delete;
  CARD_BUS& operator=(const CARD_BUS&) = delete;

  // The tty to open on the other side.
  const std::string& Device() const { return device_; }

  std::int64_t Exchanges() const { return exchanges_; }

  // What the input card at `address` reports in its block 0.
  std::atomic<unsigned char>& Input(int address) {
    return inputs_[static_cast<std::size_t>(address)];
  }

  // From now on inputs change by themselves, `rate` times a second and `count` times in all: with
  // each change the state of a card rises by one.
  void Flow(int rate, int count);

  // When a frame that sets outputs came off the wire.
  MOMENT& Outputs() { return outputs_; }

 private:
  using BYTES = std::vector<unsigned char>;

  void Serve();
  BYTES Answer(const BYTES& request);
  void Send(const BYTES& payload);

  std::array<unsigned char, kAddresses> kinds_{};
  std::string device_;
  int master_ = -1;
  int slave_ = -1;  // kept open, so that the pty outlives the other side
  std::atomic<bool> stopping_{false};
  std::atomic<std::int64_t> exchanges_{0};
  std::array<std::atomic<unsigned char>, kAddresses> inputs_{};
  std::atomic<std::int64_t> nextChange_{0};
  std::atomic<std::int64_t> changeInterval_{0};
  std::atomic<int> changesLeft_{0};
  MOMENT outputs_;
  std::thread thread_;
};

}  // namespace bench

#endif  // TALP_BENCH_CARD_BUS_H_

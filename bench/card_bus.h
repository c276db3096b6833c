#ifndef TALP_BENCH_CARD_BUS_H_
#define TALP_BENCH_CARD_BUS_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace bench {

constexpr int kAddresses = 16;
constexpr unsigned char kNoCard = 0;
constexpr unsigned char kOutputCard = 3;
constexpr unsigned char kInputCard = 4;

// The kind of card at each address.
using KINDS = std::array<unsigned char, kAddresses>;

// A card bus of digital cards on a pty, answered by a thread of its own at real-time priority. It
// waits in read(2), so that it takes no processor away from what is measured, and notes when what
// passed. It frames by itself and shares nothing with the daemon, on purpose.
class CARD_BUS {
 public:
  // Throws std::runtime_error if there is no pty to be had.
  explicit CARD_BUS(const KINDS& kinds);
  ~CARD_BUS();
  CARD_BUS(const CARD_BUS&) = delete;
  CARD_BUS& operator=(const CARD_BUS&) = delete;

  // The tty to open on the other side.
  const std::string& Device() const { return device_; }

  std::int64_t Exchanges() const { return exchanges_; }

  // From now on the input card at `address` reports `state` in its block 0.
  void ChangeInput(int address, unsigned char state) { inputs_[Index(address)] = state; }

  // When the card's first answer with a new state was written to the wire.
  std::int64_t ReportedAt(int address) const { return reportedAt_[Index(address)]; }

  // Waits for the next frame that sets outputs; returns when it came off the wire, 0 if none came
  // within `timeout` milliseconds.
  std::int64_t WaitForOutput(int timeout);

 private:
  using BYTES = std::vector<unsigned char>;

  static std::size_t Index(int address) { return static_cast<std::size_t>(address); }

  void Open();
  void Serve();
  void ServeFrames(BYTES* received);
  BYTES Answer(const BYTES& request);
  BYTES AnswerPoll(std::size_t address);
  BYTES DiscoveryAnswer() const;
  void Send(const BYTES& payload);

  const KINDS kinds_;
  std::string device_;
  int master_ = -1;
  int slave_ = -1;  // kept open, so that the pty lives on between two daemons
  int outputEvent_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<std::int64_t> exchanges_{0};
  std::atomic<std::int64_t> outputAt_{0};
  std::array<std::atomic<unsigned char>, kAddresses> inputs_{};
  std::array<unsigned char, kAddresses> reported_{};
  std::array<std::atomic<std::int64_t>, kAddresses> reportedAt_{};
  std::thread thread_;
};

}  // namespace bench

#endif  // TALP_BENCH_CARD_BUS_H_

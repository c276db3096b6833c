#ifndef TALP_BENCH_CLIENT_H_
#define TALP_BENCH_CLIENT_H_

#include <cstdint>
#include <memory>
#include <string>

namespace bench {

struct LINE {
  std::string text;  // without its end; empty if none came within seconds
  std::int64_t at;   // when it came
};

// Whoever sends IO lines to the cards and hears of their inputs in the form of IO lines. Operations
// throw std::runtime_error when the connection is lost.
class CLIENT {
 public:
  CLIENT() = default;
  virtual ~CLIENT() = default;
  CLIENT(const CLIENT&) = delete;
  CLIENT& operator=(const CLIENT&) = delete;

  // The line is given without its end.
  virtual void Send(const std::string& line) = 0;
  virtual LINE Next() = 0;

  // Skips what comes before the line; returns when that came, or 0 if it does not come.
  std::int64_t WaitFor(const std::string& line) {
    LINE next = Next();
    while (!next.text.empty() && next.text != line) next = Next();
    return next.at;
  }
};

// Returns the client that the program is linked with: of the daemon's IO port, greeted already, or
// of a broker to which the bridge of the node "bench" is connected. The port is one of this
// machine. Throws std::runtime_error if it is not to be had.
std::unique_ptr<CLIENT> Connect(int port);

}  // namespace bench

#endif  // TALP_BENCH_CLIENT_H_

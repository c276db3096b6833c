#ifndef TALP_BENCH_DAEMON_H_
#define TALP_BENCH_DAEMON_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace bench {

constexpr int kConsolePort = 5001;
constexpr int kIoPort = 5002;

constexpr long kSystemTimerSlack = 50000;  // nanoseconds, the default of a process

// What a process has cost so far.
struct COST {
  std::int64_t cpu = 0;  // nanoseconds, those of ended children included
  long peakKilobytes = 0;
  int threads = 0;
  int descriptors = 0;
};

struct DAEMON_SETTINGS {
  std::string program;
  int speed = 50;                       // percent
  long timerSlack = kSystemTimerSlack;  // nanoseconds that the daemon is started with
  bool realSleeps = false;  // or whole seconds shortened to tenths, to get it ready sooner
};

// The daemon itself, started with a configuration written for it. Needs the sandbox: the paths are
// the fixed ones.
class DAEMON {
 public:
  // Returns when the process runs. Throws std::runtime_error if it does not.
  explicit DAEMON(const DAEMON_SETTINGS& settings);
  ~DAEMON();
  DAEMON(const DAEMON&) = delete;
  DAEMON& operator=(const DAEMON&) = delete;

  COST Cost() const;

  // How often the daemon gave up a reply and connected anew.
  static int LostReplies();

 private:
  void Launch(const DAEMON_SETTINGS& settings);
  pid_t AwaitProcess() const;
  std::string Proc(const char* name) const;

  pid_t process_ = -1;
};

}  // namespace bench

#endif  // TALP_BENCH_DAEMON_H_

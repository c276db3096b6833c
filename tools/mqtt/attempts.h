#ifndef TALP_TOOLS_MQTT_ATTEMPTS_H_
#define TALP_TOOLS_MQTT_ATTEMPTS_H_

#include <chrono>
#include <random>
#include <set>
#include <string>

namespace mqtt {

using CLOCK = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// The attempts to keep up one connection: when the next one is due, and what the log says of them.
// One thread.
class ATTEMPTS {
 public:
  // `name` begins every line of the log. Pauses double from 1 second up to `longest`, and each is
  // shortened at random by up to a half, so that what has lost one server at the same time does not
  // come back at the same time.
  explicit ATTEMPTS(std::string name, seconds longest = seconds(10));

  bool Works() const { return works_; }

  // Of what is now: an attempt, a connection that works, or a pause.
  CLOCK::duration Age() const { return CLOCK::now() - since_; }

  bool IsDue() const { return Age() >= pause_; }

  // Logs a trouble, once until the connection works again.
  void Report(const std::string& trouble);

  // An attempt begins.
  void Begin() { since_ = CLOCK::now(); }

  void Succeeded(const std::string& text);

  // A pause begins. It is a short one after a connection that has lasted.
  void Failed(const std::string& trouble);

  // The same, but nothing went wrong and nothing is logged.
  void Ended();

 private:
  void Pause(seconds longest);

  const std::string name_;
  const seconds longest_;
  std::minstd_rand random_;
  std::set<std::string> reported_;
  seconds next_{1};
  CLOCK::duration pause_{0};
  CLOCK::time_point since_;
  bool works_ = false;
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_ATTEMPTS_H_

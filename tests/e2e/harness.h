#ifndef E2E_HARNESS_H
#define E2E_HARNESS_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

namespace e2e {

constexpr char kConfigFile[] = "/etc/talp/talpconf.xml";
constexpr char kPidDirectory[] = "/run/talp";
constexpr char kPidFile[] = "/run/talp/talp.pid";
// In its place the daemon's pauses of two and three seconds take a tenth.
constexpr char kSleepStub[] = "/run/shortened/sleep";
constexpr char kOutputFile[] = "/run/talp.stdout";  // of all daemons of the scenario

using LINES = std::vector<std::string>;

// Something expected did not happen. The text tells what, and what came instead.
struct FAILURE : std::runtime_error {
  using runtime_error::runtime_error;
};

// Throws a FAILURE with the text if the condition does not hold.
void Check(bool holds, const std::string& otherwise);

// Empty if there is no such file.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

// Polls until the condition holds; a FAILURE if it does not within the deadline, which is far
// longer than anything should take. `cameInstead` is asked only then.
void Await(const std::string& what, const std::function<bool()>& condition,
           const std::function<std::string()>& cameInstead);

// What comes in on a descriptor, which it owns.
class SOURCE {
 public:
  SOURCE(const SOURCE&) = delete;
  SOURCE& operator=(const SOURCE&) = delete;

 protected:
  explicit SOURCE(const std::string& name) : name_(name) {}
  ~SOURCE();
  void Watch(int descriptor);

  // Takes in what has arrived, and does not wait. False at the end.
  bool Pull();

  const std::string name_;
  int descriptor_ = -1;
  std::string unread_;
};

// The lines that come in, each without its first `prefix` characters.
class LINE_SOURCE : public SOURCE {
 protected:
  LINE_SOURCE(const std::string& name, size_t prefix) : SOURCE(name), prefix_(prefix) {}

  void PullLines();

  // Waits for the line, at the place `from` or behind, and returns where it is.
  LINES::iterator AwaitLine(const std::string& line, std::ptrdiff_t from = 0);

  const size_t prefix_;
  LINES lines_;
};

// The daemon's log, without the time.
class LOG : public LINE_SOURCE {
 public:
  LOG();

  // Waits until these whole lines stand in the log in this order, and takes them away. What else
  // the daemon's threads have written between them stays.
  void Expect(const LINES& lines);
  void ExpectLine(const std::string& line) { Expect({line}); }

  // Whether a line that nobody expected contains the text.
  bool Has(const std::string& text);
};

// A simulated card bus. Its end with another status than 0 fails the test.
class CARD_BUS : public LINE_SOURCE {
 public:
  // The options of talp-cardsim. The bus answers when this returns.
  explicit CARD_BUS(const LINES& options);
  ~CARD_BUS();

  // Carries out commands, all before the next frame of the daemon. Done when this returns.
  void Type(const std::string& commands);

  // The next lines are exactly these.
  void ExpectNext(const LINES& lines);

  // Skips what comes before the line.
  void ExpectLine(const std::string& line);

 private:
  pid_t pid_ = 0;
};

// A client of the interface "CAE", "IO" or "MON".
class CLIENT : public SOURCE {
 public:
  // Connects, and expects the banner, behind what is left over for it.
  explicit CLIENT(const std::string& interface, const std::string& leftOver = "");

  // In one packet.
  void Send(const std::string& bytes);

  // The next bytes are exactly these.
  void Expect(const std::string& bytes);

  // Sends a console line, without its separator, and expects the answer lines.
  void Ask(const std::string& line, const LINES& answers);

  // The daemon closes the connection and sends nothing more before.
  void ExpectEnd();
};

struct CONFIG {
  int caePort = 5001;
  bool poll = false;  // what polls for long gives the machine many a chance to be late
  std::string ioOutSeparator = "\\r\\n";
};

// What a scenario plays on: a fresh log and no daemon. Ends the daemons that are left.
class STAGE {
 public:
  STAGE();
  ~STAGE();

  // Runs the program and expects its foreground process to end with status 0.
  void Launch();

  // The same, until the background process has written its id to the PID file.
  pid_t LaunchDaemon();

  // The same with this configuration, until the interfaces listen.
  pid_t Start(const CONFIG& config = CONFIG());

  // The process, of whose id any will do for -1, ends with this status, as wait(2) gives it.
  void ExpectEnd(pid_t pid, int status);

  // Sends SIGINT or SIGTERM to a daemon and expects its last log lines and status 0.
  void Stop(pid_t daemon, int signal);
  void StopAll();

  CARD_BUS* AddBus(const LINES& options) { return &buses_.emplace_back(options); }

  LOG log;

 private:
  std::list<pid_t> daemons_;
  std::list<CARD_BUS> buses_;
};

void WriteConfig(const CONFIG& config);

// Plays a scenario. One in which a reply of the bus came too late although no fault was ordered,
// as on a busy machine, is played again from the start, three times at most.
void Play(const std::function<void(STAGE& stage)>& scenario);

}  // namespace e2e

#endif

#ifndef E2E_HARNESS_H
#define E2E_HARNESS_H

#include <sys/types.h>

#include <functional>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace e2e {

constexpr char kConfigFile[] = "/etc/talp/talpconf.xml";
constexpr char kPidDirectory[] = "/run/talp";
constexpr char kPidFile[] = "/run/talp/talp.pid";
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
  SOURCE(const std::string& name, int descriptor);
  ~SOURCE();
  SOURCE(const SOURCE&) = delete;
  SOURCE& operator=(const SOURCE&) = delete;

 protected:
  // Takes in what has arrived. Does not wait.
  void Pull();
  // Takes the first line off, without its end. False if no whole line has arrived.
  bool TakeLine(const std::string& lineEnd, std::string* line);
  void AwaitInput(const std::string& what, const std::function<bool()>& condition);

  const std::string name_;
  const int descriptor_;
  std::string unread_;
  bool ended_ = false;
};

// The daemon's log. Lines are given and kept without their time, which is checked for its form.
class LOG : public SOURCE {
 public:
  LOG();

  // Waits until these whole lines stand in the log in this order, and takes them away. What else
  // the daemon's threads have written between them stays.
  void Expect(const LINES& lines);
  void ExpectLine(const std::string& line) { Expect({line}); }

  // Whether a line that nobody expected contains the text.
  bool Has(const std::string& text);

 private:
  void PullLines();
  bool TakeInOrder(const LINES& wanted);

  LINES lines_;
};

// A simulated card bus. Its end with another status than 0 fails the test.
class CARD_BUS : public SOURCE {
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
  using PROCESS = std::pair<pid_t, int>;  // its id, and its standard input and output
  static PROCESS Start(const LINES& options);
  explicit CARD_BUS(const PROCESS& process);
  bool PullLines();

  const pid_t pid_;
  LINES lines_;
};

// A client of the interface "CAE", "IO" or "MON".
class CLIENT : public SOURCE {
 public:
  // Connects, and expects the log's line about it and the banner, behind what is left over for it.
  // `receiveBuffer` in bytes, 0 for the system's choice.
  CLIENT(LOG* log, const std::string& interface, const std::string& leftOver = "",
         int receiveBuffer = 0);

  // In one packet.
  void Send(const std::string& bytes);

  // The next bytes are exactly these.
  void Expect(const std::string& bytes);

  // Sends a console line, without its separator, and expects the answer lines.
  void Ask(const std::string& line, const LINES& answers);

  // The next console lines, without their separators.
  LINES Take(size_t count);

  // The daemon closes the connection and sends nothing more before.
  void ExpectEnd();

  // Waits until something has arrived, and leaves it unread.
  void AwaitUnread();
};

struct CONFIG {
  int caePort = 5001;
  bool poll = false;  // what polls for long gives the machine many a chance to be late
  std::string ioOutSeparator = "\\r\\n";
};

enum class PACE {
  kShortened,  // pauses of two and three seconds take a tenth
  kReal
};

// What a scenario plays on: a fresh log and no daemon. Ends the daemons that are left.
class STAGE {
 public:
  STAGE();
  ~STAGE();

  // Runs the program and expects its foreground process to end with status 0.
  void Launch(PACE pace = PACE::kShortened);

  // The same, until the background process has written its id to the PID file.
  pid_t LaunchDaemon(PACE pace = PACE::kShortened);

  // The same with this configuration, until the interfaces listen.
  pid_t Start(const CONFIG& config = CONFIG(), PACE pace = PACE::kShortened);

  // The process, of whose id any will do for -1, ends with this status, as wait(2) gives it.
  void ExpectEnd(pid_t pid, int status);

  // Sends SIGINT or SIGTERM to a daemon and expects its last log lines and status 0.
  void Stop(pid_t daemon, int signal);
  void StopAll();

  CARD_BUS* AddBus(const LINES& options);

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

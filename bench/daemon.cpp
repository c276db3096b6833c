#include "daemon.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "clock.h"

namespace bench {

namespace {

constexpr char kPidFile[] = "/run/talp/talp.pid";
constexpr char kLogFile[] = "/var/log/talp.log";
constexpr char kShortSleeps[] = "/run/short-sleeps";

void WriteConfiguration(int speed) {
  std::ofstream file("/etc/talp/talpconf.xml");
  file << "<TALPConfig><Debuglog File=\"" << kLogFile << "\" Loglevel=\"1\"/>"
       << "<Speed Percent=\"" << speed << "\"/>"
       << "<InitPollState Action=\"true\"/><AutoDiscover Action=\"true\"/><Interfaces>"
       << "<Interface Name=\"CAE\" Port=\"" << kConsolePort << "\"/>"
       << "<Interface Name=\"IO\" Port=\"" << kIoPort << "\"/>"
       << "<Interface Name=\"MON\" Port=\"5003\"/></Interfaces></TALPConfig>\n";
}

// The daemon pauses whole seconds through the shell's sleep.
void WriteShortSleep() {
  std::filesystem::create_directories(kShortSleeps);
  const std::string path = std::string(kShortSleeps) + "/sleep";
  std::ofstream(path) << "#!/bin/sh\nexec /bin/sleep \"0.$1\"\n";
  chmod(path.c_str(), 0755);
}

std::string Content(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The value behind `name` in a file of lines like "VmHWM:    4096 kB".
long StatusValue(const std::string& status, const std::string& name) {
  const std::size_t at = status.find("\n" + name + ":");
  return at == std::string::npos ? 0 : std::stol(status.substr(at + name.size() + 2));
}

// Fields 16 and 17 of proc(5)'s stat: the times of children that have been waited for.
std::int64_t ChildrenCpu(const std::string& stat) {
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string skipped;
  for (int field = 3; field < 16; ++field) fields >> skipped;
  std::int64_t user = 0;
  std::int64_t system = 0;
  fields >> user >> system;
  return (user + system) * (kSecond / sysconf(_SC_CLK_TCK));
}

}  // namespace

DAEMON::DAEMON(const DAEMON_SETTINGS& settings) {
  // The daemon's parent ends; whoever adopts it must be able to wait for it.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::filesystem::remove(kPidFile);
  std::filesystem::remove(kLogFile);
  WriteConfiguration(settings.speed);
  WriteShortSleep();
  Launch(settings);
  process_ = AwaitProcess();
}

void DAEMON::Launch(const DAEMON_SETTINGS& settings) {
  const pid_t starter = fork();
  if (starter == 0) {
    // Set in any case: children of a real-time thread start without any slack.
    prctl(PR_SET_TIMERSLACK, settings.timerSlack);
    const std::string path = std::string(kShortSleeps) + ":" + getenv("PATH");
    if (!settings.realSleeps) setenv("PATH", path.c_str(), 1);
    execl(settings.program.c_str(), settings.program.c_str(), nullptr);
    _exit(127);
  }
  int status = 0;
  waitpid(starter, &status, 0);
  if (status != 0) throw std::runtime_error("cannot start " + settings.program);
}

pid_t DAEMON::AwaitProcess() const {
  for (int tries = 0; tries < 2000; ++tries) {
    const std::string id = Content(kPidFile);
    if (!id.empty() && std::filesystem::exists("/proc/" + id)) return std::stoi(id);
    SleepFor(10 * kMillisecond);
  }
  throw std::runtime_error("the daemon has written no process id");
}

DAEMON::~DAEMON() {
  if (process_ < 0) return;
  kill(process_, SIGTERM);
  waitpid(process_, nullptr, 0);
}

std::string DAEMON::Proc(const char* name) const {
  return "/proc/" + std::to_string(process_) + "/" + name;
}

COST DAEMON::Cost() const {
  COST cost;
  // The first number of each thread's schedstat is its time on a processor, in nanoseconds.
  for (const auto& task : std::filesystem::directory_iterator(Proc("task"))) {
    cost.cpu += std::stoll(Content(task.path() / "schedstat"));
  }
  cost.cpu += ChildrenCpu(Content(Proc("stat")));
  const std::string status = Content(Proc("status"));
  cost.peakKilobytes = StatusValue(status, "VmHWM");
  cost.threads = static_cast<int>(StatusValue(status, "Threads"));
  const std::filesystem::directory_iterator descriptors(Proc("fd"));
  cost.descriptors = static_cast<int>(std::distance(begin(descriptors), end(descriptors)));
  return cost;
}

int DAEMON::LostReplies() {
  const std::string log = Content(kLogFile);
  const std::string message = "comm timeout";
  int count = 0;
  for (std::size_t at = log.find(message); at != std::string::npos;
       at = log.find(message, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace bench

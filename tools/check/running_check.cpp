#include "check/running_check.h"

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <optional>
#include <thread>

#include "check/config_check.h"
#include "check/process_view.h"
#include "core/config.h"
#include "core/log_texts.h"
#include "core/paths.h"

namespace check {

namespace {

constexpr char kDaemonName[] = "talp";
constexpr char kAdapters[] = "/dev/ttyUSB*";
constexpr std::chrono::milliseconds kRetryPause(100);
constexpr std::streamoff kLogTail = 65536;  // bytes; hours of the daemon's retries

struct LOG_RULE {
  const char* words;
  SEVERITY severity;
  const char* advice;
};

const LOG_RULE kLogRules[] = {
    {kLogFound, kFine, ""},
    {kLogTrying, kFine, ""},
    {kLogNoAdapter, kWarning, "plug the adapter in; talp finds it by itself"},
    {kLogCannotOpen, kWarning, "see that talp's user may use the adapter"},
    {kLogCannotWrite, kWarning, "see that the adapter is still plugged in"},
    {kLogCannotSetUp, kWarning, "this serial adapter cannot do 460800 baud"},
    {kLogTimeout, kWarning,
     "the card bus does not answer: see to its power and cable, and that no other program, such "
     "as ModemManager, uses the adapter"},
};

std::vector<std::string> Adapters() {
  glob_t found{};
  std::vector<std::string> paths;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
  if (glob(kAdapters, 0, nullptr, &found) == 0) {
    for (std::size_t i = 0; i < found.gl_pathc; ++i) paths.emplace_back(found.gl_pathv[i]);
  }
  globfree(&found);
  return paths;
}

const LOG_RULE* RuleFor(const std::string& line) {
  const auto rule = std::find_if(
      std::begin(kLogRules), std::end(kLogRules),
      [&](const LOG_RULE& candidate) { return line.find(candidate.words) != std::string::npos; });
  return rule == std::end(kLogRules) ? nullptr : rule;
}

// The last line about the adapter that was logged since the last start.
std::string LastAdapterLine(const std::string& path) {
  std::ifstream log(path, std::ios::binary | std::ios::ate);
  log.seekg(std::max<std::streamoff>(0, log.tellg() - kLogTail));
  std::string last;
  for (std::string line; std::getline(log, line);) {
    if (line.find(std::string("] ") + kLogStarted) != std::string::npos) last.clear();
    if (RuleFor(line) != nullptr) last = line;
  }
  return last;
}

// One look at the daemon.
class DAEMON_LOOK {
 public:
  DAEMON_LOOK(const std::string& path, const CONFIG_DESCRIPTOR& config)
      : path_(path), config_(config) {}

  FINDINGS Run();

  // After Run: false if another look by the same user can find nothing more.
  bool MayChange() const { return mayChange_; }

 private:
  bool FindProcess();
  bool ReadPidFile();
  void NeedsRoot(const char* place, const std::string& what);
  void JudgeAge();
  void JudgePorts();
  void JudgePort(const NAMED_INTERFACE& named);
  std::string PortOwner(int port) const;
  void JudgeStrayPorts();
  void JudgeAdapters();
  void JudgeLog();
  bool Configured(int port) const;
  void Add(SEVERITY severity, const std::string& place, const std::string& text) {
    findings_.push_back({severity, place, text});
  }

  const std::string& path_;
  const CONFIG_DESCRIPTOR& config_;
  pid_t process_ = 0;
  std::vector<TCP_SOCKET> sockets_;
  std::vector<std::string> adapters_;
  FINDINGS findings_;
  bool mayChange_ = true;
};

FINDINGS DAEMON_LOOK::Run() {
  if (!FindProcess()) return findings_;
  JudgeAge();
  if (!MayInspect(process_)) {
    NeedsRoot("", "process " + std::to_string(process_) + " belongs to another user");
    return findings_;
  }
  sockets_ = SocketsOf(process_);
  adapters_ = Adapters();
  JudgePorts();
  JudgeAdapters();
  JudgeLog();
  return findings_;
}

bool DAEMON_LOOK::FindProcess() {
  if (!ReadPidFile()) return false;
  const std::string name = ProcessName(process_);
  const std::string process = "process " + std::to_string(process_);
  if (name == kDaemonName) {
    Add(kFine, kPidFile, "talp runs as " + process);
    return true;
  }
  Add(kError, kPidFile,
      (name.empty() ? process + " has ended" : process + " is not talp but " + name) +
          "; the end of " + (config_.logFile.empty() ? "the log" : config_.logFile) +
          " tells why, if talp could write it; start talp with systemctl start talp");
  return false;
}

bool DAEMON_LOOK::ReadPidFile() {
  if (std::ifstream(kPidFile) >> process_) return true;
  if (access(kPidFile, R_OK) != 0 && errno == EACCES) {
    NeedsRoot(kPidFile, "this user may not read the file");
  } else {
    Add(kError, kPidFile,
        "talp has not been started, or may not write this file; start it with "
        "systemctl start talp");
  }
  return false;
}

void DAEMON_LOOK::NeedsRoot(const char* place, const std::string& what) {
  mayChange_ = false;
  Add(kError, place,
      what + (geteuid() == 0
                  ? "; root may look into it with CAP_SYS_PTRACE only, which a container "
                    "may withhold"
                  : "; look again as root"));
}

// The daemon writes its PID file when it starts and reads its configuration right after.
void DAEMON_LOOK::JudgeAge() {
  struct stat start {};
  struct stat change {};
  if (stat(kPidFile, &start) != 0 || stat(path_.c_str(), &change) != 0) return;
  if (change.st_mtime <= start.st_mtime) return;
  Add(kWarning, path_, "changed after talp was started; systemctl restart talp puts it in force");
}

void DAEMON_LOOK::JudgePorts() {
  for (const NAMED_INTERFACE& named : InterfacesOf(config_)) {
    if (Listens(named)) JudgePort(named);
  }
  JudgeStrayPorts();
}

void DAEMON_LOOK::JudgePort(const NAMED_INTERFACE& named) {
  const int port = named.interface->port;
  const std::string subject = std::string(named.name) + " on port " + std::to_string(port);
  const auto has = [&](bool TCP_SOCKET::*state) {
    return std::any_of(sockets_.begin(), sockets_.end(), [&](const TCP_SOCKET& socket) {
      return socket.localPort == port && socket.*state;
    });
  };
  if (has(&TCP_SOCKET::established)) {
    Add(kFine, "", subject + " has a client");
  } else if (has(&TCP_SOCKET::listening)) {
    Add(kFine, "", subject + " listens");
  } else {
    Add(kError, "", subject + " does not listen: " + PortOwner(port));
  }
}

std::string DAEMON_LOOK::PortOwner(int port) const {
  for (const TCP_SOCKET& socket : AllSockets(process_)) {
    if (socket.localPort != port || !socket.listening) continue;
    return "the port is taken by " + HolderOf(socket.inode) +
           "; end that or choose another Port, then systemctl restart talp";
  }
  return "systemctl restart talp, and see the log for why if that does not help";
}

// If its port was taken at the start, an interface listens on one that the system chose.
void DAEMON_LOOK::JudgeStrayPorts() {
  for (const TCP_SOCKET& socket : sockets_) {
    if (!socket.listening || Configured(socket.localPort)) continue;
    Add(kError, "",
        "talp listens on port " + std::to_string(socket.localPort) + ", which " + path_ +
            " does not name; systemctl restart talp");
  }
}

bool DAEMON_LOOK::Configured(int port) const {
  const auto interfaces = InterfacesOf(config_);
  return std::any_of(interfaces.begin(), interfaces.end(), [port](const NAMED_INTERFACE& named) {
    return named.interface->port == port;
  });
}

void DAEMON_LOOK::JudgeAdapters() {
  if (adapters_.empty()) {
    Add(kWarning, kAdapters,
        "there is no adapter; plug it in, and if that changes nothing, dmesg "
        "tells what the kernel made of it");
  }
  for (const std::string& adapter : adapters_) {
    if (!MayUse(process_, adapter)) {
      Add(kWarning, adapter,
          "talp's user may not use this adapter; its group must be one of the "
          "user's (dialout), and ls -lL " +
              adapter + " shows it");
    } else if (HasOpen(process_, adapter)) {
      Add(kFine, adapter, "talp has this adapter open");
    }
  }
}

void DAEMON_LOOK::JudgeLog() {
  const std::string line = LastAdapterLine(config_.logFile);
  if (line.empty()) return;  // rotated away, or nothing has happened yet
  const LOG_RULE& rule = *RuleFor(line);
  const std::string advice = *rule.advice == '\0' ? "" : std::string("; ") + rule.advice;
  Add(rule.severity, config_.logFile, line + advice);
}

}  // namespace

FINDINGS CheckRunning(const std::string& path, std::chrono::seconds wait) {
  const CONFIG_DESCRIPTOR config = ReadConfigFile(path.c_str());
  if (config.errorText != kNoConfigError) {
    return {{kError, path, config.errorText + "; talp-check config tells more"}};
  }
  const auto deadline = std::chrono::steady_clock::now() + wait;
  for (;;) {
    DAEMON_LOOK look(path, config);
    FINDINGS findings = look.Run();
    if (WorstOf(findings) != kError || !look.MayChange()) return findings;
    if (std::chrono::steady_clock::now() >= deadline) return findings;
    std::this_thread::sleep_for(kRetryPause);
  }
}

}  // namespace check

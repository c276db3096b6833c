#include "harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

namespace e2e {

namespace {

constexpr char kLogFile[] = "/var/log/talp.log";
constexpr char kErrorFile[] = "/run/talp.stderr";
constexpr char kStubDirectory[] = "/run/shortened";
constexpr char kSeparator[] = "\r\n\r";  // of the console, and what the interface itself adds
constexpr int kAttempts = 3;
constexpr std::chrono::seconds kDeadline{10};

// The daemon pauses through the shell's sleep. Its pauses of one second keep their length: within
// them a card has to answer or a farewell has to go out.
constexpr char kSleepStub[] = "#!/bin/sh\n[ \"$1\" = 1 ] || set 0.$1\nexec /bin/sleep $1\n";

struct ENDPOINT {
  uint16_t port;
  const char* banner;
};

const std::map<std::string, ENDPOINT> kEndpoints = {
    {"CAE", {5001, "TALP CAE interface is ready\r\n(Type HELP for help)\r\n>\r\n\r"}},
    {"IO", {5002, "TALP IO interface is ready\r\n\r"}},
    {"MON", {5003, "TALP MON interface is ready\r\n\r"}},
};

std::string Printable(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    if (c == '\r') text += "\\r";
    text += (c >= ' ' && c <= '~') || c == '\n' ? std::string(1, c) : "";
  }
  return text;
}

std::string Joined(const LINES& lines, const std::string& end) {
  std::string text;
  for (const std::string& line : lines) text += line + end;
  return text;
}

int Connect(const std::string& interface, int receiveBuffer) {
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (receiveBuffer > 0) {
    setsockopt(connection, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(kEndpoints.at(interface).port);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  Check(connect(connection, generic, sizeof address) == 0, interface + " does not listen");
  return connection;
}

// As it stands in the address record, byte-swapped where the machine is little-endian: so the
// daemon logs it.
uint16_t LoggedPort(int connection) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(connection, reinterpret_cast<sockaddr*>(&address), &size);
  return address.sin_port;
}

[[noreturn]] void Execute(const char* program, const LINES& options) {
  std::vector<char*> arguments = {const_cast<char*>(program)};
  for (const std::string& option : options) arguments.push_back(const_cast<char*>(option.c_str()));
  arguments.push_back(nullptr);
  execv(program, arguments.data());
  _exit(127);
}

void RedirectTo(const char* path, int descriptor) {
  dup2(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666), descriptor);
}

// Also true of a child that has ended and has not been waited for.
bool IsChild(pid_t pid) {
  siginfo_t info;
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

}  // namespace

void Check(bool holds, const std::string& otherwise) {
  if (!holds) throw FAILURE(otherwise);
}

std::string ReadFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path);
  file << content << std::flush;
  Check(file.good(), "cannot write " + path);
}

void Await(const std::string& what, const std::function<bool()>& condition,
           const std::function<std::string()>& cameInstead) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw FAILURE("awaited in vain: " + what + "\ncame instead: " + cameInstead());
    }
    usleep(1000);
  }
}

SOURCE::SOURCE(const std::string& name, int descriptor) : name_(name), descriptor_(descriptor) {
  Check(fcntl(descriptor_, F_SETFL, O_NONBLOCK) == 0, name + " cannot be opened");
}

SOURCE::~SOURCE() { close(descriptor_); }

void SOURCE::Pull() {
  char bytes[65536];
  ssize_t count;
  while ((count = read(descriptor_, bytes, sizeof bytes)) > 0) {
    unread_.append(bytes, static_cast<size_t>(count));
  }
  ended_ = count == 0;
}

bool SOURCE::TakeLine(const std::string& lineEnd, std::string* line) {
  const size_t end = unread_.find(lineEnd);
  if (end == std::string::npos) return false;
  *line = unread_.substr(0, end);
  unread_.erase(0, end + lineEnd.size());
  return true;
}

void SOURCE::AwaitInput(const std::string& what, const std::function<bool()>& condition) {
  const auto arrived = [&] {
    Pull();
    return condition();
  };
  Await(name_ + ": " + Printable(what), arrived, [this] { return Printable(unread_); });
}

LOG::LOG() : SOURCE("log", open(kLogFile, O_RDONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {}

void LOG::PullLines() {
  constexpr size_t kTimeSize = sizeof "2000-01-01 00:00:00 " - 1;
  Pull();
  std::string line;
  while (TakeLine("\n", &line)) {
    tm time{};
    Check(strptime(line.c_str(), "%Y-%m-%d %H:%M:%S ", &time) == line.c_str() + kTimeSize,
          "log: malformed line " + line);
    lines_.push_back(line.substr(kTimeSize));
  }
}

bool LOG::TakeInOrder(const LINES& wanted) {
  LINES rest;
  auto next = wanted.begin();
  for (const std::string& line : lines_) {
    if (next != wanted.end() && line == *next) {
      ++next;
    } else {
      rest.push_back(line);
    }
  }
  if (next != wanted.end()) return false;
  lines_ = rest;
  return true;
}

void LOG::Expect(const LINES& wanted) {
  const auto arrived = [&] {
    PullLines();
    return TakeInOrder(wanted);
  };
  Await("log:\n" + Joined(wanted, "\n"), arrived, [this] { return "\n" + Joined(lines_, "\n"); });
}

bool LOG::Has(const std::string& text) {
  PullLines();
  return Joined(lines_, "\n").find(text) != std::string::npos;
}

CARD_BUS::PROCESS CARD_BUS::Start(const LINES& options) {
  int ends[2];
  Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no socket pair");
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(ends[1], STDIN_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    Execute(CARDSIM_PROGRAM, options);
  }
  close(ends[1]);
  return {pid, ends[0]};
}

CARD_BUS::CARD_BUS(const LINES& options) : CARD_BUS(Start(options)) {
  AwaitInput("ready", [this] { return PullLines() && lines_.front().rfind("ready ", 0) == 0; });
  lines_.clear();
}

CARD_BUS::CARD_BUS(const PROCESS& process)
    : SOURCE("card bus", process.second), pid_(process.first) {}

CARD_BUS::~CARD_BUS() {
  int status = -1;
  kill(pid_, SIGTERM);
  waitpid(pid_, &status, 0);
  EXPECT_EQ(status, 0) << "of the simulated card bus";
}

bool CARD_BUS::PullLines() {
  std::string line;
  while (TakeLine("\n", &line)) lines_.push_back(line);
  return !lines_.empty();
}

void CARD_BUS::Type(const std::string& commands) {
  const std::string text = commands + "\nsync\n";
  Check(write(descriptor_, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
        "bus ended");
  const auto done = [this] {
    PullLines();
    const auto sync = std::find(lines_.begin(), lines_.end(), "sync");
    if (sync == lines_.end()) return false;
    lines_.erase(sync);
    return true;
  };
  AwaitInput(commands, done);
}

void CARD_BUS::ExpectNext(const LINES& wanted) {
  for (const std::string& line : wanted) {
    AwaitInput(line, [this] { return PullLines(); });
    Check(lines_.front() == line,
          name_ + ": expected next: " + line + "\ncame instead:\n" + Joined(lines_, "\n"));
    lines_.erase(lines_.begin());
  }
}

void CARD_BUS::ExpectLine(const std::string& line) {
  const auto arrived = [&] {
    PullLines();
    const auto found = std::find(lines_.begin(), lines_.end(), line);
    const bool here = found != lines_.end();
    lines_.erase(lines_.begin(), here ? found + 1 : found);
    return here;
  };
  AwaitInput(line, arrived);
}

CLIENT::CLIENT(LOG* log, const std::string& interface, const std::string& leftOver,
               int receiveBuffer)
    : SOURCE(interface + " client", Connect(interface, receiveBuffer)) {
  log->ExpectLine("[INF] client is connected on " + interface +
                  " interface from 127.0.0.1:" + std::to_string(LoggedPort(descriptor_)));
  Expect(leftOver + kEndpoints.at(interface).banner);
}

void CLIENT::Send(const std::string& bytes) {
  const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  Check(sent == static_cast<ssize_t>(bytes.size()), name_ + ": cannot send " + Printable(bytes));
}

void CLIENT::Expect(const std::string& bytes) {
  const auto decided = [&] {
    return unread_.size() >= bytes.size() || bytes.compare(0, unread_.size(), unread_) != 0;
  };
  AwaitInput(bytes, decided);
  Check(unread_.compare(0, bytes.size(), bytes) == 0,
        name_ + ": expected next: " + Printable(bytes) + "\ncame instead: " + Printable(unread_));
  unread_.erase(0, bytes.size());
}

void CLIENT::Ask(const std::string& line, const LINES& answers) {
  Send(line + "\r\n");
  Expect(Joined(answers, kSeparator));
}

LINES CLIENT::Take(size_t count) {
  LINES lines(count);
  for (std::string& line : lines) {
    AwaitInput("a line", [&] { return TakeLine(kSeparator, &line); });
  }
  return lines;
}

void CLIENT::ExpectEnd() {
  AwaitInput("the end", [this] { return ended_; });
  Check(unread_.empty(), name_ + ": came before the end: " + Printable(unread_));
}

void CLIENT::AwaitUnread() {
  int count = 0;
  const auto arrived = [&] { return ioctl(descriptor_, FIONREAD, &count) == 0 && count > 0; };
  Await(name_ + ": anything", arrived, [] { return "nothing"; });
}

void WriteConfig(const CONFIG& config) {
  std::ostringstream xml;
  xml << "<TALPConfig><Debuglog File='" << kLogFile << "' Loglevel='1'/><Speed Percent='50'/>"
      << "<InitPollState Action='" << (config.poll ? "True" : "False")
      << "'/><AutoDiscover Action='True'/><Interfaces>"
      << "<I Name='CAE' Port='" << config.caePort << "'/>"
      << "<I Name='IO' Port='5002' OutSeparator='" << config.ioOutSeparator << "'/>"
      << "<I Name='MON' Port='5003' InpSeparator='|' OutSeparator='|'/></Interfaces></TALPConfig>";
  WriteFile(kConfigFile, xml.str());
}

STAGE::STAGE() {
  // Orphans come to this process: so it learns how a daemon ends.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  mkdir(kPidDirectory, 0755);
  mkdir(kStubDirectory, 0755);
  for (const char* left : {kPidFile, kConfigFile, kOutputFile, kErrorFile}) unlink(left);
  const std::string stub = std::string(kStubDirectory) + "/sleep";
  WriteFile(stub, kSleepStub);
  chmod(stub.c_str(), 0755);
}

STAGE::~STAGE() {
  for (const pid_t daemon : daemons_) {
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
  }
}

void STAGE::Launch(PACE pace) {
  const pid_t pid = fork();
  if (pid == 0) {
    RedirectTo(kOutputFile, STDOUT_FILENO);
    RedirectTo(kErrorFile, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);  // what the caller of this program has left open
    const std::string path = std::string(kStubDirectory) + ":" + getenv("PATH");
    if (pace == PACE::kShortened) setenv("PATH", path.c_str(), 1);
    Execute(TALP_PROGRAM, {});
  }
  ExpectEnd(pid, W_EXITCODE(0, 0));
}

pid_t STAGE::LaunchDaemon(PACE pace) {
  Launch(pace);
  pid_t daemon = 0;
  const auto written = [&] {
    const std::string content = ReadFile(kPidFile);
    daemon = std::atoi(content.c_str());
    return daemon > 0 && content == std::to_string(daemon) && IsChild(daemon) &&
           std::count(daemons_.begin(), daemons_.end(), daemon) == 0;
  };
  Await("PID file", written, [] { return ReadFile(kPidFile); });
  daemons_.push_back(daemon);
  return daemon;
}

pid_t STAGE::Start(const CONFIG& config, PACE pace) {
  WriteConfig(config);
  const pid_t daemon = LaunchDaemon(pace);
  log.Expect({"[INF] talp is started", "[INF] CAE interface listening on port 5001",
              "[INF] IO interface listening on port 5002",
              "[INF] MON interface listening on port 5003"});
  return daemon;
}

void STAGE::ExpectEnd(pid_t pid, int status) {
  int actual = -1;
  const auto ended = [&] { return waitpid(pid, &actual, WNOHANG) > 0; };
  Await("end of process", ended, [] { return "it runs"; });
  daemons_.remove(pid);
  Check(actual == status, "process ended with wait status " + std::to_string(actual));
}

void STAGE::Stop(pid_t daemon, int signal) {
  kill(daemon, signal);
  const std::string told = "[INF] signal " + std::to_string(signal) + " on ";
  log.Expect({told + "CAE interface", told + "IO interface", told + "MON interface",
              told + "serial interface", "[INF] talp is stopped by SIGTERM or SIGINT"});
  ExpectEnd(daemon, W_EXITCODE(0, 0));
}

void STAGE::StopAll() {
  while (!daemons_.empty()) Stop(daemons_.front(), SIGTERM);
}

CARD_BUS* STAGE::AddBus(const LINES& options) { return &buses_.emplace_back(options); }

void Play(const std::function<void(STAGE& stage)>& scenario) {
  // What is written below belongs to the sandbox, and only there.
  ASSERT_EQ(access("/.etc", F_OK), 0) << "to be run by talp-sandbox";
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    std::string failure;
    bool disturbed = false;
    {
      STAGE stage;
      try {
        scenario(stage);
        disturbed = stage.log.Has("comm timeout");
        if (!disturbed) stage.StopAll();
      } catch (const FAILURE& what) {
        failure = what.what();
        disturbed = stage.log.Has("comm timeout");
      }
    }
    EXPECT_EQ(ReadFile(kErrorFile), "") << "on the daemon's standard error";
    if (!disturbed) {
      if (!failure.empty()) ADD_FAILURE() << failure;
      return;
    }
    std::cout << "Attempt " << attempt << ": a reply of the bus came too late. " << failure << '\n';
  }
  ADD_FAILURE() << "a reply of the bus came too late in every attempt";
}

}  // namespace e2e

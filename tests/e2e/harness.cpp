#include "harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

namespace e2e {

namespace {

constexpr char kLogFile[] = "/var/log/talp.log";
constexpr char kErrorFile[] = "/run/talp.stderr";
constexpr char kSeparator[] = "\r\n\r";  // of the console, and what the interface itself adds
constexpr int kAttempts = 3;
constexpr std::chrono::seconds kDeadline{10};

// The daemon pauses through the shell's sleep. Its pauses of one second keep their length: within
// them a card has to answer or a farewell has to go out.
constexpr char kShortened[] = "#!/bin/sh\n[ \"$1\" = 1 ] || set 0.$1\nexec /bin/sleep $1\n";

struct ENDPOINT {
  uint16_t port;
  const char* banner;
};

const std::map<std::string, ENDPOINT> kEndpoints = {
    {"CAE", {5001, "TALP CAE interface is ready\r\n(Type HELP for help)\r\n>\r\n\r"}},
    {"IO", {5002, "TALP IO interface is ready\r\n\r"}},
    {"MON", {5003, "TALP MON interface is ready\r\n\r"}},
};

std::string Joined(const LINES& lines, const std::string& end) {
  std::string text;
  for (const std::string& line : lines) text += line + end;
  return text;
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

SOURCE::~SOURCE() { close(descriptor_); }

void SOURCE::Watch(int descriptor) {
  descriptor_ = descriptor;
  Check(fcntl(descriptor_, F_SETFL, O_NONBLOCK) == 0, name_ + " cannot be opened");
}

bool SOURCE::Pull() {
  char bytes[65536];
  ssize_t count;
  while ((count = read(descriptor_, bytes, sizeof bytes)) > 0) {
    unread_.append(bytes, static_cast<size_t>(count));
  }
  return count != 0;
}

void LINE_SOURCE::PullLines() {
  Pull();
  size_t start = 0;
  for (size_t end; (end = unread_.find('\n', start)) != std::string::npos; start = end + 1) {
    lines_.push_back(unread_.substr(start, end - start).erase(0, prefix_));
  }
  unread_.erase(0, start);
}

LINES::iterator LINE_SOURCE::AwaitLine(const std::string& line, std::ptrdiff_t from) {
  LINES::iterator found;
  const auto arrived = [&] {
    PullLines();
    found = std::find(lines_.begin() + from, lines_.end(), line);
    return found != lines_.end();
  };
  Await(name_ + ": " + line, arrived, [this] { return "\n" + Joined(lines_, "\n"); });
  return found;
}

LOG::LOG() : LINE_SOURCE("log", sizeof "2000-01-01 00:00:00 " - 1) {
  Watch(open(kLogFile, O_RDONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
}

void LOG::Expect(const LINES& wanted) {
  std::ptrdiff_t from = 0;
  for (const std::string& line : wanted) {
    const LINES::iterator found = AwaitLine(line, from);
    from = found - lines_.begin();
    lines_.erase(found);
  }
}

bool LOG::Has(const std::string& text) {
  PullLines();
  return Joined(lines_, "\n").find(text) != std::string::npos;
}

CARD_BUS::CARD_BUS(const LINES& options) : LINE_SOURCE("card bus", 0) {
  int ends[2];
  Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no socket pair");
  pid_ = fork();
  if (pid_ == 0) {
    dup2(ends[1], STDIN_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    Execute(CARDSIM_PROGRAM, options);
  }
  close(ends[1]);
  Watch(ends[0]);
  Type("");
  lines_.clear();
}

CARD_BUS::~CARD_BUS() {
  int status = -1;
  kill(pid_, SIGTERM);
  waitpid(pid_, &status, 0);
  EXPECT_EQ(status, 0) << "of the simulated card bus";
}

void CARD_BUS::Type(const std::string& commands) {
  const std::string text = commands + "\nsync\n";
  Check(send(descriptor_, text.data(), text.size(), MSG_NOSIGNAL) > 0, "bus ended");
  lines_.erase(AwaitLine("sync"));
}

void CARD_BUS::ExpectNext(const LINES& wanted) {
  const auto arrived = [&] {
    PullLines();
    return lines_.size() >= wanted.size() ||
           !std::equal(lines_.begin(), lines_.end(), wanted.begin());
  };
  const std::string next = name_ + ": next\n" + Joined(wanted, "\n");
  Await(next, arrived, [this] { return "\n" + Joined(lines_, "\n"); });
  Check(std::equal(wanted.begin(), wanted.end(), lines_.begin()),
        next + "came instead:\n" + Joined(lines_, "\n"));
  lines_.erase(lines_.begin(), lines_.begin() + static_cast<std::ptrdiff_t>(wanted.size()));
}

void CARD_BUS::ExpectLine(const std::string& line) {
  const LINES::iterator found = AwaitLine(line);
  lines_.erase(lines_.begin(), found + 1);
}

CLIENT::CLIENT(const std::string& interface, const std::string& leftOver)
    : SOURCE(interface + " client") {
  const ENDPOINT& endpoint = kEndpoints.at(interface);
  sockaddr_in address = {AF_INET, htons(endpoint.port), {htonl(INADDR_LOOPBACK)}, {}};
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  Check(connect(connection, generic, sizeof address) == 0, interface + " does not listen");
  Watch(connection);
  Expect(leftOver + endpoint.banner);
}

void CLIENT::Send(const std::string& bytes) {
  const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  Check(sent == static_cast<ssize_t>(bytes.size()),
        name_ + ": cannot send " + testing::PrintToString(bytes));
}

void CLIENT::Expect(const std::string& bytes) {
  const auto decided = [&] {
    Pull();
    return unread_.size() >= bytes.size() || bytes.compare(0, unread_.size(), unread_) != 0;
  };
  const std::string next = name_ + ": next " + testing::PrintToString(bytes);
  Await(next, decided, [this] { return testing::PrintToString(unread_); });
  Check(unread_.compare(0, bytes.size(), bytes) == 0,
        next + "\ncame instead: " + testing::PrintToString(unread_));
  unread_.erase(0, bytes.size());
}

void CLIENT::Ask(const std::string& line, const LINES& answers) {
  Send(line + "\r\n");
  Expect(Joined(answers, kSeparator));
}

void CLIENT::ExpectEnd() {
  const auto ended = [this] { return !Pull(); };
  Await(name_ + ": the end", ended, [] { return "nothing"; });
  Check(unread_.empty(), name_ + ": came before the end: " + testing::PrintToString(unread_));
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
  for (const char* left : {kPidFile, kConfigFile, kOutputFile, kErrorFile}) unlink(left);
  mkdir("/run/shortened", 0755);
  WriteFile(kSleepStub, kShortened);
  chmod(kSleepStub, 0755);
}

STAGE::~STAGE() {
  for (const pid_t daemon : daemons_) {
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
  }
}

void STAGE::Launch() {
  const pid_t pid = fork();
  if (pid == 0) {
    RedirectTo(kOutputFile, STDOUT_FILENO);
    RedirectTo(kErrorFile, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);  // what the caller of this program has left open
    setenv("PATH", (std::string("/run/shortened:") + getenv("PATH")).c_str(), 1);
    Execute(TALP_PROGRAM, {});
  }
  ExpectEnd(pid, W_EXITCODE(0, 0));
}

pid_t STAGE::LaunchDaemon() {
  const std::string before = ReadFile(kPidFile);
  Launch();
  pid_t daemon = 0;
  const auto written = [&] {
    const std::string content = ReadFile(kPidFile);
    daemon = std::atoi(content.c_str());
    return content != before && daemon > 0 && content == std::to_string(daemon);
  };
  Await("PID file", written, [] { return ReadFile(kPidFile); });
  daemons_.push_back(daemon);
  return daemon;
}

pid_t STAGE::Start(const CONFIG& config) {
  WriteConfig(config);
  const pid_t daemon = LaunchDaemon();
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

void Play(const std::function<void(STAGE& stage)>& scenario) {
  // What is written below belongs to the sandbox, and only there.
  ASSERT_EQ(access("/.etc", F_OK), 0) << "to be run by talp-sandbox";
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    std::string failure;
    bool late = false;
    STAGE stage;
    // Not asked after an orderly stop: it closes the bus, which the task that reads from it may
    // find out while the process ends.
    try {
      scenario(stage);
      late = stage.log.Has("comm timeout");
      if (!late) stage.StopAll();
    } catch (const FAILURE& what) {
      failure = what.what();
      late = stage.log.Has("comm timeout");
    }
    EXPECT_EQ(ReadFile(kErrorFile), "") << "on the daemon's standard error";
    if (!late) {
      if (!failure.empty()) ADD_FAILURE() << failure;
      return;
    }
    std::cout << "Attempt " << attempt << ": a reply of the bus came too late. " << failure << '\n';
  }
  ADD_FAILURE() << "a reply of the bus came too late in every attempt";
}

}  // namespace e2e

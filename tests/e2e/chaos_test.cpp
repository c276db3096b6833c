#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <list>
#include <random>
#include <set>
#include <sstream>

#include "harness.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

constexpr char kLogFile[] = "/var/log/talp.log";
constexpr char kClockFile[] = "/run/clock_step";
constexpr int kMostOpen = 24;  // standard ones, listeners, clients, tty, log lines, shells' pipes
const LINES kCards = {"--link", "/dev/ttyUSB0", "--card=3=din", "--card=5=dout"};
const std::set<int> kPorts = {5001, 5002, 5003};

std::mt19937 dice;

int Roll(int sides) { return static_cast<int>(dice() % static_cast<unsigned>(sides)); }

int Setting(const char* variable, int otherwise) {
  const char* const text = getenv(variable);
  return text == nullptr ? otherwise : std::atoi(text);
}

// A client as it should be: there once its interface has greeted it, behind what was left over for
// it. A connection that waited behind a vandal's ends with that one, and is tried again.
class GUEST {
 public:
  GUEST(int port, const std::string& banner) { Await(banner, port); }
  ~GUEST() { close(connection_); }
  GUEST(const GUEST&) = delete;
  GUEST& operator=(const GUEST&) = delete;

  void Send(const std::string& bytes) {
    const ssize_t sent = send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    Check(sent == static_cast<ssize_t>(bytes.size()), "cannot send " + bytes);
  }

  // Takes everything up to the end of `text`, and returns what came before. Connects anew, to
  // `port`, only where one is given.
  std::string Await(const std::string& text, int port = 0) {
    const auto arrived = [&] {
      const bool connected = Pull();
      if (!connected && port != 0) Connect(port);
      return connected && unread_.find(text) != std::string::npos;
    };
    e2e::Await(text, arrived, [this] { return unread_; });
    const size_t at = unread_.find(text);
    std::string before = unread_.substr(0, at);
    unread_.erase(0, at + text.size());
    return before;
  }

 private:
  void Connect(int port) {
    close(connection_);
    unread_.clear();
    sockaddr_in address = {AF_INET, htons(static_cast<uint16_t>(port)), {}, {}};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connection_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    connect(connection_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }

  bool Pull() {
    char bytes[4096];
    ssize_t count;
    while ((count = recv(connection_, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
      unread_.append(bytes, static_cast<size_t>(count));
    }
    return count < 0 && errno == EAGAIN;
  }

  int connection_ = -1;
  std::string unread_;
};

// Of the whole sandbox, in which nobody else listens.
std::set<int> ListeningPorts() {
  std::istringstream table(ReadFile("/proc/net/tcp"));
  std::set<int> ports;
  std::string line;
  while (std::getline(table, line)) {  // "   0: 00000000:1389 00000000:0000 0A ..."
    if (line.substr(34, 2) == "0A") ports.insert(std::stoi(line.substr(15, 4), nullptr, 16));
  }
  return ports;
}

class CHAOS {
 public:
  CHAOS(pid_t daemon, CARD_BUS* bus)
      : daemon_(daemon), process_("/proc/" + std::to_string(daemon)), bus_(bus) {
    Calm();
    threads_ = Count("/task");
  }

  void Round() {
    static const LINES kFaults = {"off\nsilence on", "off\nhangup",       "lost 2",
                                  "split forever 5", "short 2",           "cut 40 2",
                                  "overlong 9 120",  "overlong 2 200",    "long forever",
                                  "late 3 150",      "misaddressed 20 5", "misaddressed 20 10",
                                  "error 20 54",     "error 20 12",       "error 20 23",
                                  "error 20 24",     "error 20 4E",       "error 20 42",
                                  "error 20 43"};
    const int fault = Roll(static_cast<int>(kFaults.size()));
    bus_->Type("fault " + kFaults[static_cast<size_t>(fault)]);
    SpoilLog(Roll(4));
    WriteFile(kClockFile, std::to_string((Roll(41) - 20) * 365 * 86400));
    const std::string vandals = VANDAL_PROGRAM " --seconds 1.5 5001 5002 5003 --seed ";
    FILE* const running = popen((vandals + std::to_string(Roll(1 << 30))).c_str(), "re");
    for (int step = 0; step < 150; ++step) {
      CheckProcess();
      usleep(10000);
    }
    Check(pclose(running) == 0, "the vandals failed");
    Calm();
  }

  // Everything is undone, and the daemon serves as if nothing had been.
  void Calm() {
    bus_->Type("fault off\nsilence off\nreturn /dev/ttyUSB" + std::to_string(Roll(100)));
    fs::remove_all(kLogFile);
    GUEST cae(5001, "TALP CAE interface is ready\r\n(Type HELP for help)\r\n>\r\n\r");
    GUEST io(5002, "TALP IO interface is ready\r\n\r");
    GUEST mon(5003, "TALP MON interface is ready\r\n\r");
    cae.Send("DRVVER\r\n");
    cae.Await("CIA: DRIVER VERSION 1.20\r\n\r>\r\n\r");
    // A reply that comes too late on a busy machine costs its frame: then once more.
    bool whole = false;
    for (int tries = 1; !whole; ++tries) {
      const size_t before = ReadFile(kLogFile).size();
      try {
        DriveInputs(&io, &mon);
        DriveOutputs(&io);
        whole = true;
      } catch (const FAILURE&) {
        const size_t late = ReadFile(kLogFile).find("comm timeout", before);
        if (tries == 3 || late == std::string::npos) throw;
      }
    }
    const auto logged = [] {
      return ReadFile(kLogFile).find("connected on MON interface") != std::string::npos;
    };
    Await("a line in the log", logged, [] { return ReadFile(kLogFile); });
    const auto closed = [this] {
      const int open = Count("/fd");
      descriptors_ = std::min(open, descriptors_);
      return open == descriptors_;
    };
    Await("as few descriptors as ever", closed, [] { return "more"; });
  }

  long MemoryKib() const {
    const std::string sizes = ReadFile(process_ + "/statm");  // in pages, the second is resident
    return std::stol(sizes.substr(sizes.find(' '))) * sysconf(_SC_PAGESIZE) / 1024;
  }

 private:
  int Count(const char* directory) const {
    const fs::directory_iterator entries(process_ + directory);
    return static_cast<int>(std::distance(begin(entries), end(entries)));
  }

  // What takes the log's place is exchanged with it: in between, the daemon might open a new one.
  static void SpoilLog(int how) {
    const std::string other = std::string(kLogFile) + ".1";
    fs::remove_all(other);
    if (how == 1) fs::rename(kLogFile, other);             // rotated
    if (how == 2) fs::create_directory(other);             // cannot be written
    if (how == 3) fs::create_symlink("/dev/full", other);  // no room on the disk
    if (how < 2) return;
    Check(renameat2(AT_FDCWD, other.c_str(), AT_FDCWD, kLogFile, RENAME_EXCHANGE) == 0, "no log");
  }

  void CheckProcess() const {
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(daemon_), &info, WEXITED | WNOHANG | WNOWAIT);
    Check(info.si_pid == 0, "the daemon has ended");
    Check(Count("/task") == threads_, "another number of threads");
    Check(Count("/fd") <= kMostOpen, "too many descriptors");
    for (const int port : ListeningPorts()) {
      Check(kPorts.count(port) == 1, "listens on port " + std::to_string(port));
    }
  }

  std::string NextValue() {
    static const char kDigits[] = "0123456789ABCDEF";
    ++value_;
    return {kDigits[value_ / 16 % 16], kDigits[value_ % 16]};
  }

  // From a mark on, the clients get every change, in order, whole, and nothing else.
  void DriveInputs(GUEST* io, GUEST* mon) {
    for (int i = 0; i < 8; ++i) {
      const std::string value = NextValue();
      bus_->Type("set 3 0 " + value);
      for (GUEST* const client : {io, mon}) {
        const std::string between = client->Await("a3b0d" + value + "\r\n\r");
        Check(i == 0 || between.empty(), "came between: " + between);
      }
    }
  }

  void DriveOutputs(GUEST* io) {
    std::string lines = "a5b1dFF\r\n";
    LINES outputs;
    for (int i = 0; i < 8; ++i) {
      const std::string value = NextValue();
      lines += "a5b0d" + value + "\r\n";
      outputs.push_back("out 5 dout b0=" + value + " b1=FF");
    }
    io->Send(lines);
    for (const std::string& output : outputs) bus_->ExpectLine(output);
  }

  const pid_t daemon_;
  const std::string process_;
  CARD_BUS* const bus_;
  int threads_ = 0;
  int descriptors_ = kMostOpen;
  unsigned value_ = 0;
};

void Survive(pid_t daemon, CARD_BUS* bus, std::time_t end) {
  CHAOS chaos(daemon, bus);
  int rounds = 0;
  for (; std::time(nullptr) < end; ++rounds) chaos.Round();
  const long before = chaos.MemoryKib();
  sleep(3);
  const long grown = chaos.MemoryKib() - before;
  std::cout << rounds << " rounds, " << before << " KiB in memory, then " << grown << " more\n";
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep what is freed
  EXPECT_LE(grown, 64);
#endif
}

TEST(EndToEnd, Chaos) {
  const int seconds = Setting("TALP_CHAOS_SECONDS", 30);
  const int seed = Setting("TALP_CHAOS_SEED", static_cast<int>(std::random_device()() >> 1));
  dice.seed(static_cast<unsigned>(seed));
  std::cout << "TALP_CHAOS_SEED=" << seed << " TALP_CHAOS_SECONDS=" << seconds << std::endl;
  WriteFile("/proc/sys/net/ipv4/tcp_wmem", "4096 4096 4096");  // soon full for who never reads
  STAGE stage;
  CARD_BUS* const bus = stage.AddBus(kCards);
  try {
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    setenv("LD_PRELOAD", CLOCK_STEP_LIBRARY, 1);
    CONFIG config;
    config.poll = true;
    const pid_t daemon = stage.Start(config);
    unsetenv("LD_PRELOAD");
    Survive(daemon, bus, std::time(nullptr) + seconds);
    WriteFile(kClockFile, "-1000000000");
    kill(daemon, SIGTERM);
    stage.ExpectEnd(daemon, W_EXITCODE(0, 0));
    const std::time_t past = std::time(nullptr) - 1000000000;
    const std::string year = std::to_string(1900 + std::gmtime(&past)->tm_year) + "-";
    EXPECT_NE(ReadFile(kLogFile).find(year), std::string::npos) << "the clock was stepped";
  } catch (const FAILURE& failure) {
    ADD_FAILURE() << failure.what();
  }
  EXPECT_EQ(ReadFile("/run/talp.stderr"), "");
}

TEST(EndToEnd, Restarts) {
  STAGE stage;
  stage.AddBus(kCards);
  WriteConfig(CONFIG());
  std::list<GUEST> guests;  // who stay when the daemon has gone
  try {
    for (int i = 0; i < 20; ++i) {
      const pid_t daemon = stage.LaunchDaemon();
      const auto listening = [] { return ListeningPorts() == kPorts; };
      Await("the three ports", listening, [] { return "others"; });
      EXPECT_EQ(ReadFile(kPidFile), std::to_string(daemon));
      for (const int port : kPorts) guests.emplace_back(port, " interface is ready\r\n");
      kill(daemon, SIGTERM);
      stage.ExpectEnd(daemon, W_EXITCODE(0, 0));
    }
  } catch (const FAILURE& failure) {
    ADD_FAILURE() << failure.what();
  }
}

}  // namespace
}  // namespace e2e

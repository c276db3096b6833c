// Clients as they should not be.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <iterator>
#include <list>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr char kDescription[] =
    "Clients that misbehave, one for each PORT of a talp on this machine, to see what it bears.\n"
    "Each picks one of these habits and keeps to it:\n"
    "  burst   sends 64 KiB of any bytes at once and stays\n"
    "  mute    asks for help and never reads the answer\n"
    "  reset   asks for help and resets the connection in the middle of the answer\n"
    "  halves  sends parts of lines and leaves\n"
    "  leave   comes and leaves, over and over\n"
    "None of them reads. What they choose follows from the seed.\n";

constexpr std::size_t kBurst = 65536;
constexpr int kReceiveBuffer = 2048;  // bytes, so that what is not read soon backs up
constexpr int kConnectLimit = 100;    // milliseconds
constexpr useconds_t kStep = 10000;   // microseconds

using DICE = std::mt19937;

int Roll(int sides, DICE* dice) {
  return static_cast<int>((*dice)() % static_cast<unsigned>(sides));
}

std::string Garbage(DICE* dice) {
  std::string bytes(kBurst, '\0');
  for (char& c : bytes) c = static_cast<char>(Roll(256, dice));
  return bytes;
}

std::string Question(DICE*) { return "HELP\r\n"; }

std::string Half(DICE* dice) {
  static constexpr const char* kHalves[] = {"a",   "a5b0d",   "aElPAp", "EXI",
                                            "HEL", "POLLON:", "=:\r",   "\r\n"};
  return kHalves[Roll(std::size(kHalves), dice)];
}

std::string Nothing(DICE*) { return {}; }

struct HABIT {
  std::string (*bytes)(DICE* dice);
  bool stays;
  bool resets;
};

constexpr HABIT kHabits[] = {{Garbage, true, false},
                             {Question, true, false},
                             {Question, false, true},
                             {Half, false, false},
                             {Nothing, false, false}};

// -1 if nobody takes the connection at once.
int Connect(std::uint16_t port) {
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  setsockopt(connection, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  pollfd entry = {connection, POLLOUT, 0};
  if (poll(&entry, 1, kConnectLimit) == 1 && (entry.revents & (POLLERR | POLLHUP)) == 0) {
    return connection;
  }
  close(connection);
  return -1;
}

class VANDAL {
 public:
  VANDAL(std::uint16_t port, DICE* dice)
      : port_(port), dice_(dice), habit_(kHabits[Roll(std::size(kHabits), dice)]) {}
  ~VANDAL() { Leave(); }
  VANDAL(const VANDAL&) = delete;
  VANDAL& operator=(const VANDAL&) = delete;

  void Step() {
    if (connection_ >= 0) {
      if (!habit_.stays && Roll(3, dice_) == 0) Leave();
    } else if (Roll(5, dice_) == 0) {
      Come();
    }
  }

 private:
  void Come() {
    connection_ = Connect(port_);
    const std::string bytes = habit_.bytes(dice_);
    if (connection_ >= 0) {
      send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
  }

  void Leave() {
    if (connection_ < 0) return;
    const linger reset = {1, 0};
    if (habit_.resets) setsockopt(connection_, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(connection_);
    connection_ = -1;
  }

  const std::uint16_t port_;
  DICE* const dice_;
  const HABIT habit_;
  int connection_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(kDescription, "talp-vandal");
  unsigned seed = 0;
  double seconds = 10;
  std::vector<std::uint16_t> ports;
  app.add_option("--seed", seed)->type_name("N")->capture_default_str();
  app.add_option("--seconds", seconds)->type_name("SECONDS")->capture_default_str();
  app.add_option("PORT", ports)->required();
  CLI11_PARSE(app, argc, argv);

  DICE dice(seed);
  std::list<VANDAL> vandals;
  for (const std::uint16_t port : ports) vandals.emplace_back(port, &dice);
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    for (VANDAL& vandal : vandals) vandal.Step();
    usleep(kStep);
  }
}

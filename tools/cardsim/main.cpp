#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <iostream>
#include <string>
#include <vector>

#include "cardsim/adapter.h"
#include "cardsim/card_bus.h"
#include "cardsim/console.h"
#include "cardsim/fault_plan.h"
#include "cardsim/line_output.h"

namespace {

constexpr int kCannotStart = 1;
constexpr int kBadOptions = 2;

constexpr char kDescription[] =
    "A simulated bus of peripheral cards for the daemon talp, on a pseudo-terminal that is linked\n"
    "like a USB serial adapter. Commands on standard input change inputs and cause faults ('help'\n"
    "lists them); what the cards receive is printed. talp-cardsim(1) describes everything.";

struct OPTIONS {
  std::string linkPath;  // empty: no link
  std::vector<std::string> cards;
  std::string versionText = "1.20";
  bool frames = false;
};

// What is wrong with A=KIND, or an empty text.
std::string CheckCard(const std::string& text) {
  if (text.find('=') != 1 || !ParseHex(text.substr(0, 1), 1)) return "write A=KIND, A being 0-F";
  return ParseKind(text.substr(2)) ? "" : "the kind is " + KindWords() + " or a code";
}

void AddOptions(CLI::App* app, OPTIONS* options) {
  app->add_option("--link", options->linkPath, "symbolic link to make, such as /dev/ttyUSB0");
  app->add_option("--card", options->cards, "card at address A, once for each; " + KindWords())
      ->type_name("A=KIND")
      ->allow_extra_args(false)
      ->check(CheckCard);
  app->add_option("--version-text", options->versionText,
                  "four characters, answered to the identification handshake")
      ->capture_default_str();
  app->add_flag("--frames", options->frames, "print each frame as rx and tx lines");
}

// The stop signals are read from the returned descriptor, so that none is missed between two
// waits. A reader of the lines may go, and in the background of a terminal nothing is typed;
// neither may end or stop the bus.
int HandleSignals() {
  sigset_t stops;
  sigemptyset(&stops);
  for (const int stop : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stops, stop);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);
  for (const int ignored : {SIGPIPE, SIGTTIN, SIGTTOU}) signal(ignored, SIG_IGN);
  return signalfd(-1, &stops, SFD_CLOEXEC);
}

// The master waits for a reply in a busy loop, some tens of milliseconds on a pty: on a loaded
// machine a bus at normal priority may get the CPU too late. Allowed or not, it runs.
void RaisePriority() {
  sched_param priority{};
  priority.sched_priority = sched_get_priority_min(SCHED_RR);
  sched_setscheduler(0, SCHED_RR, &priority);
}

// Runs until `quit` is typed, a terminal's input ends, or a stop signal comes.
void Run(int stopSignals, ADAPTER* adapter, CONSOLE* console, LINE_OUTPUT* out) {
  int pause = -1;
  while (!console->HasQuit()) {
    std::array<pollfd, 4> wait = {
        pollfd{adapter->Descriptor(), POLLIN, 0}, pollfd{console->Descriptor(), POLLIN, 0},
        pollfd{stopSignals, POLLIN, 0}, pollfd{out->PendingDescriptor(), POLLOUT, 0}};
    poll(wait.data(), wait.size(), pause);
    if (wait[2].revents != 0) return;
    if (wait[0].revents != 0) adapter->Receive();
    if (wait[1].revents != 0) console->Read();
    pause = adapter->SendLatePieces();
    // After everything else: the bus waits for its answers, a reader of lines does not.
    out->Flush();
  }
}

}  // namespace

int main(int argc, char** argv) {
  OPTIONS options;
  CLI::App app(kDescription, "talp-cardsim");
  AddOptions(&app, &options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app.exit(end) == 0 ? 0 : kBadOptions;
  }
  const int stopSignals = HandleSignals();
  RaisePriority();
  LINE_OUTPUT out;
  CARD_BUS bus(options.versionText, &out);
  FAULT_PLAN faults(&out);
  ADAPTER adapter(&bus, &faults, &out, options.frames);
  CONSOLE console({&out, &bus, &faults, &adapter, false});
  for (const std::string& card : options.cards) {
    PlugIn(bus.Slot(*ParseHex(card.substr(0, 1), 1)), *ParseKind(card.substr(2)));
  }
  const std::string why = adapter.PlugIn(options.linkPath);
  if (!why.empty()) {
    std::cerr << "talp-cardsim: " << why << '\n';
    return kCannotStart;
  }
  out.Flush();
  Run(stopSignals, &adapter, &console, &out);
  return 0;
}

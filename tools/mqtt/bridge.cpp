#include "mqtt/bridge.h"

#include <poll.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "net/client_framing.h"

namespace mqtt {

namespace {

// Messages that the broker has not acknowledged.
constexpr std::size_t kBehind = 1000;
constexpr std::size_t kTooFarBehind = 15000;
constexpr std::size_t kMostRefusals = 500;
constexpr seconds kVisitTime(5);  // the console's place belongs to people
constexpr seconds kLongestTurn(2);
constexpr int kTick = 250;  // milliseconds: how often the log is read
constexpr int kBusyTick = 20;

// Whether `line` is the first one that the interface called `name` sends.
bool IsGreeting(const std::string& line, const char* name) {
  return BannerOf(name).rfind(line + "\r\n", 0) == 0;
}

}  // namespace

BRIDGE::BRIDGE(const BRIDGE_OPTIONS& options, NAMES nodeNames)
    : NODE(std::move(nodeNames), options.config.io.inpSeparator, options.config.cae.port != 0,
           options.restores),
      broker_(options.broker,
              {names.clientId, names.root + "status", RetainedFilters(), CommandFilters()}, this),
      log_(options.log, options.noLogReason),
      io_("IO port", options.talp, options.config.io, seconds(10)),
      console_("console", options.talp, options.config.cae, seconds(60)) {}

void BRIDGE::Run(int signals) {
  lastTurn_ = CLOCK::now();
  do {
    Turn();
  } while (!Wait(signals));
  NODE::OnIo(false);
  broker_.Finish();
}

// The log is read first: a command must not be sent to a bus of which it says that it is gone.
void BRIDGE::Turn() {
  const CLOCK::time_point now = CLOCK::now();
  log_.Run();
  NODE::OnBus(log_.State());
  NODE::OnTime(now);
  // Nobody can tell how old the messages are that have come meanwhile.
  if (now - std::exchange(lastTurn_, now) > kLongestTurn) broker_.Drop("this program was stopped");
  broker_.Run();
  RunIo();
  RunConsole();
}

// While the broker lags behind, talp keeps its lines. Commands are sent all the same.
bool BRIDGE::IsBehind() const { return broker_.Unacknowledged() > kBehind; }

void BRIDGE::RunIo() {
  if (io_.Works() && IsBehind()) return;
  for (const std::string& line : io_.Run(true)) {
    NODE::OnLine(line);
    if (io_.Works() || !IsGreeting(line, "IO")) continue;
    io_.Succeeded("connected");
    NODE::OnIo(true);
  }
  if (!io_.Works()) NODE::OnIo(false);
}

void BRIDGE::RunConsole() {
  const bool wasVisiting = console_.Works();
  for (const std::string& line : console_.Run(WantsConsole())) {
    console_.Works() ? GoOnVisiting(line) : BeginVisit(line);
  }
  if (wasVisiting && !console_.Works() && visit_.State() != CONSOLE_VISIT::STATE::kDone) {
    AskConsole();
  }
  const bool isBroken = visit_.State() == CONSOLE_VISIT::STATE::kBroken;
  if (console_.Works() && (isBroken || console_.Age() > kVisitTime)) {
    AskConsole();
    console_.Close("no list of cards");
  }
}

void BRIDGE::BeginVisit(const std::string& line) {
  if (!IsGreeting(line, "CAE")) return;
  console_.Succeeded("connected");
  OnVisit();
  visit_ = {};
  console_.Send({CONSOLE_VISIT::FirstCommand()});
}

void BRIDGE::GoOnVisiting(const std::string& line) {
  const CONSOLE_VISIT::STATE before = visit_.State();
  const std::string next = visit_.Take(line);
  const CONSOLE_VISIT::STATE now = visit_.State();
  const bool isPhase = now != before;
  if (isPhase && now == CONSOLE_VISIT::STATE::kPolls && !OnKinds(visit_.Kinds())) {
    return console_.Close("talp has not found any card");
  }
  if (isPhase && now == CONSOLE_VISIT::STATE::kInputs) OnInputsAsked(visit_.Polled());
  if (now == CONSOLE_VISIT::STATE::kDone) return console_.Leave();
  if (next.empty()) return;
  console_.Answered();
  console_.Send({next});
}

// Until something happens, or it is time. True when a signal has come.
bool BRIDGE::Wait(int signals) {
  const pollfd io = io_.Works() && IsBehind() ? pollfd{-1, 0, 0} : io_.Poll();
  pollfd polled[] = {{signals, POLLIN, 0}, broker_.Poll(), io, console_.Poll()};
  int pause = std::min(kTick, broker_.Pause());
  if (io_.IsBusy() || console_.IsBusy()) pause = std::min(pause, kBusyTick);
  if (IsWaiting()) pause = std::min(pause, io_.Pause());
  poll(polled, std::size(polled), pause);
  return polled[0].revents != 0;
}

void BRIDGE::Publish(const std::string& topic, const std::string& payload, bool retain) {
  // Whoever sends more commands than can be refused must not keep the rest from the broker.
  const bool isRefusal = !retain && topic == names.root + "error";
  if (isRefusal && broker_.Unacknowledged() > kMostRefusals) return;
  broker_.Publish(topic, payload, retain);
}

// Each command is followed by messages that tell what it has set.
bool BRIDGE::Send(const LINES& lines) {
  return broker_.Unacknowledged() < kTooFarBehind && io_.Send(lines);
}

void BRIDGE::OnRetained(const std::string& topic, const std::string& payload) {
  NODE::OnRetained(topic, payload);
}

void BRIDGE::OnBroker(bool ready) { NODE::OnBroker(ready); }

void BRIDGE::OnMessage(const std::string& topic, const std::string& payload, bool retained) {
  NODE::OnMessage(topic, payload, retained);
}

}  // namespace mqtt

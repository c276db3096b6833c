#include "measure.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>

#include "bare_loop.h"
#include "card_bus.h"
#include "clock.h"
#include "line_client.h"
#include "pause_model.h"

namespace bench {

namespace {

constexpr char kAdapter[] = "/dev/ttyUSB0";
constexpr int kOutputAddress = 15;
constexpr int kTimeout = 3000;  // milliseconds
constexpr double kNanosecondsPerSecond = 1e9;

KINDS Cards(int inputs, bool withOutput) {
  KINDS kinds{};
  for (int i = 0; i < inputs; ++i) kinds[static_cast<std::size_t>(i)] = kInputCard;
  if (withOutput) kinds[kOutputAddress] = kOutputCard;
  return kinds;
}

// Different every time within a run, and the same in every run.
std::mt19937_64& Random() {
  static std::mt19937_64 random(20);
  return random;
}

// A pause of one to three cycles, so that an event meets the loops at a random moment.
void PauseAtRandom(std::int64_t cycle) {
  SleepFor(cycle + static_cast<std::int64_t>(Random()() % static_cast<std::uint64_t>(2 * cycle)));
}

std::int64_t EventSpacing(int speed) {
  return std::max<std::int64_t>(kMillisecond, DelayOf(speed) * kMicrosecond);
}

// Hands out changes of input cards, each to a state that the card does not have.
class CHANGES {
 public:
  CHANGES(CARD_BUS* bus, int cards) : bus_(bus), cards_(cards) {}

  // Returns when the change was made.
  std::int64_t Make() {
    address = static_cast<int>(Random()() % static_cast<std::uint64_t>(cards_));
    state = static_cast<unsigned char>(state % 255 + 1);
    const std::int64_t now = Now();
    bus_->ChangeInput(address, state);
    return now;
  }

  int address = 0;
  unsigned char state = 0;

 private:
  CARD_BUS* const bus_;
  const int cards_;
};

double CpuPerSecond(const DAEMON& daemon, std::int64_t window) {
  const std::int64_t cpu = daemon.Cost().cpu;
  const std::int64_t start = Now();
  SleepFor(window);
  return static_cast<double>(daemon.Cost().cpu - cpu) / static_cast<double>(Now() - start);
}

// A bus behind the adapter's name, the daemon on it, polling, and an IO client.
class SESSION {
 public:
  SESSION(const DAEMON_SETTINGS& settings, const KINDS& kinds) : bus(kinds) {
    std::filesystem::remove(kAdapter);
    std::filesystem::create_symlink(bus.Device(), kAdapter);
    daemon = std::make_unique<DAEMON>(settings);
    io = std::make_unique<LINE_CLIENT>(kIoPort, "ready\r\n\r");
    AwaitPolling();
  }

  ~SESSION() { std::filesystem::remove(kAdapter); }

  CARD_BUS bus;
  std::unique_ptr<DAEMON> daemon;
  std::unique_ptr<LINE_CLIENT> io;

 private:
  void AwaitPolling() {
    constexpr std::int64_t kEnough = 100;
    for (int tries = 0; tries < 2000; ++tries) {
      if (bus.Exchanges() > kEnough) return;
      SleepFor(10 * kMillisecond);
    }
    throw std::runtime_error("the daemon does not poll");
  }
};

// Changes a card and waits for its line; returns when it came, 0 if it did not.
std::int64_t AwaitChange(SESSION* session, CHANGES* changes, std::int64_t* changed) {
  *changed = changes->Make();
  char line[16];
  std::snprintf(line, sizeof line, "a%Xb0d%02X\r\n\r", static_cast<unsigned>(changes->address),
                static_cast<unsigned>(changes->state));
  return session->io->WaitFor(line);
}

std::string OutputLine(int value) {
  char line[16];
  std::snprintf(line, sizeof line, "a%Xb0d%02X\r\n", static_cast<unsigned>(kOutputAddress),
                static_cast<unsigned>(value & 0xFF));
  return line;
}

void MeasureInputs(SESSION* session, CHANGES* changes, int count, RUN_FIGURES* figures) {
  for (int i = 0; i < count; ++i) {
    PauseAtRandom(EventSpacing(figures->speed));
    std::int64_t changed = 0;
    const std::int64_t arrived = AwaitChange(session, changes, &changed);
    if (arrived == 0) {
      ++figures->lost;
      continue;
    }
    figures->change.push_back(arrived - changed);
    figures->report.push_back(arrived - session->bus.ReportedAt(changes->address));
  }
}

// A client that also sends acknowledges late, so its second line may be held back for the first.
void MeasureSecondLines(SESSION* session, CHANGES* changes, int count, RUN_FIGURES* figures) {
  for (int i = 0; i < count; ++i) {
    std::int64_t changed = 0;
    PauseAtRandom(EventSpacing(figures->speed));
    session->io->Send(OutputLine(i));
    if (AwaitChange(session, changes, &changed) == 0) ++figures->lost;
    const std::int64_t arrived = AwaitChange(session, changes, &changed);
    if (arrived == 0) {
      ++figures->lost;
    } else {
      figures->second.push_back(arrived - changed);
    }
  }
  while (session->bus.WaitForOutput(100) != 0) continue;
}

void MeasureOutputs(SESSION* session, int count, RUN_FIGURES* figures) {
  for (int i = 0; i < count; ++i) {
    PauseAtRandom(EventSpacing(figures->speed));
    const std::int64_t sent = Now();
    session->io->Send(OutputLine(i));
    const std::int64_t framed = session->bus.WaitForOutput(kTimeout);
    if (framed == 0) {
      ++figures->lost;
    } else {
      figures->output.push_back(framed - sent);
    }
  }
}

void MeasureRate(SESSION* session, std::int64_t window, RUN_FIGURES* figures) {
  const std::int64_t exchanges = session->bus.Exchanges();
  const std::int64_t start = Now();
  figures->cpu = CpuPerSecond(*session->daemon, window);
  figures->rate = static_cast<double>(session->bus.Exchanges() - exchanges) *
                  kNanosecondsPerSecond / static_cast<double>(Now() - start);
}

}  // namespace

BARE_FIGURES MeasureBareLoop(int cards, const EXTENT& extent) {
  BARE_FIGURES figures;
  figures.cards = cards;
  CARD_BUS bus(Cards(cards, false));
  BARE_LOOP loop(bus.Device(), cards);
  CHANGES changes(&bus, cards);
  for (int i = 0; i < extent.fastChanges; ++i) {
    PauseAtRandom(kMillisecond);
    const std::int64_t changed = changes.Make();
    const std::int64_t seen = loop.WaitForChange(kTimeout);
    if (seen == 0) throw std::runtime_error("the bare loop gets no replies");
    figures.change.push_back(seen - changed);
    figures.exchange.push_back(seen - bus.ReportedAt(changes.address));
  }
  const std::int64_t exchanges = bus.Exchanges();
  const std::int64_t start = Now();
  SleepFor(extent.rateMilliseconds * kMillisecond);
  figures.rate = static_cast<double>(bus.Exchanges() - exchanges) * kNanosecondsPerSecond /
                 static_cast<double>(Now() - start);
  return figures;
}

RUN_FIGURES MeasureRun(const DAEMON_SETTINGS& settings, int cards, const EXTENT& extent) {
  RUN_FIGURES figures;
  figures.speed = settings.speed;
  figures.cards = cards;
  const bool slow = EventSpacing(settings.speed) > kMillisecond;
  const int count = slow ? extent.slowChanges : extent.fastChanges;
  const bool roomForOutput = cards < kAddresses;
  {
    SESSION session(settings, Cards(cards, roomForOutput));
    MeasureRate(&session, extent.rateMilliseconds * kMillisecond, &figures);
    CHANGES changes(&session.bus, cards);
    MeasureInputs(&session, &changes, count, &figures);
    if (roomForOutput) {
      MeasureSecondLines(&session, &changes, count / 4, &figures);
      MeasureOutputs(&session, count, &figures);
    }
    figures.cost = session.daemon->Cost();
    figures.lost += DAEMON::LostReplies();
  }
  if (!roomForOutput) {  // an output card takes the place of the last input card
    SESSION session(settings, Cards(cards, true));
    MeasureOutputs(&session, count, &figures);
    figures.lost += DAEMON::LostReplies();
  }
  if (figures.change.empty() || figures.output.empty()) {
    throw std::runtime_error("one way through the daemon let nothing pass");
  }
  return figures;
}

IDLE_FIGURES MeasureWithoutAdapter(DAEMON_SETTINGS settings, const EXTENT& extent) {
  settings.realSleeps = true;
  const DAEMON daemon(settings);
  SleepFor(kSecond / 2);
  IDLE_FIGURES figures{"no adapter", settings.speed, 0, {}};
  figures.cpu = CpuPerSecond(daemon, extent.absentMilliseconds * kMillisecond);
  figures.cost = daemon.Cost();
  return figures;
}

IDLE_FIGURES MeasureEmptyBus(const DAEMON_SETTINGS& settings, const EXTENT& extent) {
  CARD_BUS bus(Cards(0, false));
  std::filesystem::create_symlink(bus.Device(), kAdapter);
  const DAEMON daemon(settings);
  SleepFor(kSecond);
  IDLE_FIGURES figures{"empty bus", settings.speed, 0, {}};
  figures.cpu = CpuPerSecond(daemon, extent.idleMilliseconds * kMillisecond);
  figures.cost = daemon.Cost();
  std::filesystem::remove(kAdapter);
  return figures;
}

}  // namespace bench

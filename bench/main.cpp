#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "card_bus.h"
#include "client.h"
#include "timing.h"

namespace {

using namespace bench;

constexpr int kMostLost = 10;  // events; each is waited for in vain for seconds

struct OPTIONS {
  std::string link;
  int cards = 0;
  int events = 0;
  int delay = 1;   // microseconds
  int window = 0;  // milliseconds
  int port = 0;
  int flow = 0;  // lines a second
};

using SAMPLES = std::vector<std::int64_t>;  // in nanoseconds

// The time from `start` to `end`; negative for an end of 0, that of an event that never arrived.
std::int64_t Duration(std::int64_t start, std::int64_t end) {
  static int lost = 0;
  if (end != 0) return end - start;
  if (++lost == kMostLost) throw std::runtime_error("too many events do not arrive");
  return -kMicrosecond;
}

// Prints a line: a name and the samples in microseconds.
void Print(const char* name, const SAMPLES& samples) {
  std::printf("%s", name);
  for (const std::int64_t sample : samples) {
    std::printf(" %.1f", static_cast<double>(sample) / kMicrosecond);
  }
  std::printf("\n");
}

// Different every time within a run, and the same in every run.
int Random(int below) {
  static std::mt19937 random(20);
  return static_cast<int>(random() % static_cast<unsigned>(below));
}

// Waits for one to three cycles of the loops, so that an event meets them at a random moment.
void PauseAtRandom(const OPTIONS& options) {
  const int cycle = std::max(1000, options.delay);
  SleepFor((cycle + Random(2 * cycle)) * kMicrosecond);
}

std::string Line(int address, int value) {
  char line[16];
  std::snprintf(line, sizeof line, "a%Xb0d%02X", static_cast<unsigned>(address),
                static_cast<unsigned>(value));
  return line;
}

// Changes inputs one by one; `wait` returns when the change of a card to a state was seen.
void MeasureChanges(CARD_BUS* bus, const OPTIONS& options,
                    const std::function<std::int64_t(int, int)>& wait) {
  SAMPLES samples;
  for (int i = 0; i < options.events; ++i) {
    PauseAtRandom(options);
    const int address = Random(options.cards);
    const int state = i % 255 + 1;  // none of the latest 254, so no card has it
    const std::int64_t changed = Now();
    bus->Input(address) = static_cast<unsigned char>(state);
    samples.push_back(Duration(changed, wait(address, state)));
  }
  Print("changes", samples);
}

void MeasureOutputs(CARD_BUS* bus, CLIENT* client, const OPTIONS& options) {
  SAMPLES samples;
  for (int i = 0; i < options.events; ++i) {
    PauseAtRandom(options);
    const std::int64_t sent = Now();
    client->Send(Line(kOutputCard, i % 256));
    samples.push_back(Duration(sent, bus->Outputs().Await()));
  }
  Print("outputs", samples);
}

// Takes the line of a card's next state: with each of its lines a state rises by one. False if
// another line comes, or none.
bool TakeNextState(CLIENT* client, std::array<int, kAddresses>* states, std::int64_t* at) {
  const LINE line = client->Next();
  if (line.text.empty()) return false;
  const int address = std::stoi(line.text.substr(1, 1), nullptr, 16);
  int& state = (*states)[static_cast<std::size_t>(address)];
  state = (state + 1) % 256;
  *at = line.at;
  return line.text == Line(address, state);
}

// Has inputs change `rate` times a second. True if each change arrived, in the order of its card,
// and the lines kept up with the changes.
bool MeasureFlow(CARD_BUS* bus, CLIENT* client, int rate, const OPTIONS& options) {
  std::array<int, kAddresses> states{};
  for (int address = 0; address < options.cards; ++address) {
    states[static_cast<std::size_t>(address)] = bus->Input(address);
  }
  const int count = rate * options.window / 1000;
  std::printf("window\n");
  const std::int64_t start = Now();
  std::int64_t end = start + 1;
  int arrived = 0;
  bus->Flow(rate, count);
  while (arrived < count && TakeNextState(client, &states, &end)) ++arrived;
  const double reached = static_cast<double>(arrived) * kSecond / static_cast<double>(end - start);
  std::printf("flow %d %.1f %d\n", rate, reached, count - arrived);
  return arrived == count && reached > 0.95 * rate;
}

// Counts the bus's exchanges in a window, whose start and end the reader sees as it happens.
void MeasureRate(const CARD_BUS& bus, const OPTIONS& options) {
  std::printf("window\n");
  const std::int64_t exchanges = bus.Exchanges();
  const std::int64_t start = Now();
  SleepFor(options.window * kMillisecond);
  std::printf("rate %.1f\n", static_cast<double>(bus.Exchanges() - exchanges) * kSecond /
                                 static_cast<double>(Now() - start));
}

unsigned char Poll(int tty, unsigned char address) {
  constexpr std::size_t kStateAt = 3;  // behind length, code and address
  const unsigned char request[] = {3, 0x20, address, 2};
  std::array<unsigned char, 256> reply{};
  static_cast<void>(!write(tty, request, sizeof request));
  for (std::size_t received = 0; received == 0 || received <= reply[0];) {
    const ssize_t count = read(tty, reply.data() + received, reply.size() - received);
    if (count > 0) received += static_cast<std::size_t>(count);
  }
  return reply[kStateAt];
}

// The bare limit: polls as fast as it can, notes the changes, and does nothing else. Like the
// daemon it waits for a reply by reading without a pause.
void PollAll(const CARD_BUS& bus, int cards, MOMENT* changes, const std::atomic<bool>* stopping) {
  const int tty = open(bus.Device().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  std::vector<unsigned char> states(static_cast<std::size_t>(cards));
  while (!*stopping) {
    for (std::size_t address = 0; address < states.size(); ++address) {
      const unsigned char state = Poll(tty, static_cast<unsigned char>(address));
      if (state != states[address]) changes->Note();
      states[address] = state;
    }
  }
  close(tty);
}

void MeasureBareLoop(const OPTIONS& options) {
  CARD_BUS bus(options.cards);
  MOMENT changes;
  std::atomic<bool> stopping{false};
  std::thread loop([&] { PollAll(bus, options.cards, &changes, &stopping); });
  MeasureRate(bus, options);
  MeasureChanges(&bus, options, [&](int, int) { return changes.Await(); });
  stopping = true;
  loop.join();
}

// The adapter's name is made once the bus is there; a daemon that runs already finds it then.
void AwaitExchanges(const CARD_BUS& bus, const OPTIONS& options) {
  unlink(options.link.c_str());
  if (symlink(bus.Device().c_str(), options.link.c_str()) != 0) {
    throw std::runtime_error("cannot make " + options.link);
  }
  const int enough = options.cards > 0 ? 100 : 2;  // without cards: handshake and discovery
  for (int tries = 0; bus.Exchanges() < enough; ++tries) {
    if (tries == 2000) throw std::runtime_error("the daemon does not serve the bus");
    SleepFor(10 * kMillisecond);
  }
}

void MeasureDaemon(const OPTIONS& options) {
  CARD_BUS bus(options.cards);
  AwaitExchanges(bus, options);
  if (options.cards == 0) {
    MeasureRate(bus, options);
    return;
  }
  const std::unique_ptr<CLIENT> client = Connect(options.port);
  MeasureRate(bus, options);
  MeasureChanges(&bus, options, [&client](int address, int state) {
    return client->WaitFor(Line(address, state));
  });
  MeasureOutputs(&bus, client.get(), options);
  int rate = options.flow;
  while (rate > 0 && MeasureFlow(&bus, client.get(), rate, options)) rate *= 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  OPTIONS options;
  CLI::App app(
      "Measures one case of the benchmark and prints what each event took: of the daemon,\n"
      "which the caller has started, or without --link of a loop that only polls.");
  app.add_option("--cards", options.cards, "input cards")->check(CLI::Range(0, kOutputCard));
  app.add_option("--events", options.events, "samples of each latency");
  app.add_option("--delay", options.delay, "the loops' pause in microseconds");
  app.add_option("--window", options.window, "milliseconds to count for");
  app.add_option("--link", options.link, "the adapter's name that the daemon looks for");
  app.add_option("--port", options.port, "that of the daemon's IO interface or of the broker");
  app.add_option("--flow", options.flow, "lines a second, doubled until they lag; 0: none");
  CLI11_PARSE(app, argc, argv);
  try {
    RaisePriority();
    options.link.empty() ? MeasureBareLoop(options) : MeasureDaemon(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "talp-bench: %s\n", error.what());
    return 1;
  }
  return 0;
}

#ifndef TALP_BENCH_MEASURE_H_
#define TALP_BENCH_MEASURE_H_

#include <string>
#include <vector>

#include "daemon.h"
#include "samples.h"

namespace bench {

// How much is measured.
struct EXTENT {
  std::vector<int> cards;  // how many input cards, case by case
  int pauses;              // of each kind
  int fastChanges;         // samples of a latency where cycles are short
  int slowChanges;         // and where they take milliseconds
  int rateMilliseconds;    // counting exchanges, at each case
  int idleMilliseconds;    // with a bus but without cards
  int absentMilliseconds;  // without an adapter: a whole number of its 2-second retries
};

struct BARE_FIGURES {
  int cards = 0;
  SAMPLES change;    // from a change at a card to the moment that the loop has seen it
  SAMPLES exchange;  // from the reply on the wire to that moment
  double rate = 0;   // exchanges per second
};

struct RUN_FIGURES {
  int speed = 0;
  int cards = 0;
  SAMPLES change;   // from a change at a card to its line at the IO client
  SAMPLES report;   // from its reply on the wire to the line
  SAMPLES second;   // as `change`, of a second line at once to a client that also sends
  SAMPLES output;   // from an IO line to its frame on the wire
  double rate = 0;  // exchanges per second
  double cpu = 0;   // seconds per second
  COST cost;        // at the end
  int lost = 0;     // replies that came too late, and events that never arrived
};

struct IDLE_FIGURES {
  std::string name;
  int speed = 0;
  double cpu = 0;
  COST cost;
};

BARE_FIGURES MeasureBareLoop(int cards, const EXTENT& extent);

// The daemon with `cards` polled input cards and an IO client.
RUN_FIGURES MeasureRun(const DAEMON_SETTINGS& settings, int cards, const EXTENT& extent);

// The daemon without an adapter and with a bus without cards, in both cases without a client.
IDLE_FIGURES MeasureWithoutAdapter(DAEMON_SETTINGS settings, const EXTENT& extent);
IDLE_FIGURES MeasureEmptyBus(const DAEMON_SETTINGS& settings, const EXTENT& extent);

}  // namespace bench

#endif  // TALP_BENCH_MEASURE_H_

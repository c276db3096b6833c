#ifndef TALP_BENCH_PAUSE_MODEL_H_
#define TALP_BENCH_PAUSE_MODEL_H_

#include <cstdint>
#include <random>

#include "samples.h"

namespace bench {

// How long pauses really take, measured here at normal priority.
struct PAUSES {
  SAMPLES delay;  // the configured one
  SAMPLES idle;   // the 100 ns of a task thread after each pass, if they were slept
};

// The delay in microseconds that belongs to a speed in percent.
int DelayOf(int speed);

// Measures both pauses `count` times with the given timer slack in nanoseconds.
PAUSES MeasurePauses(int delayMicroseconds, long timerSlack, int count);

// The design's own limit: the loops as if all work between their pauses took no time, met at a
// random moment. The idle time counts as what it says; the serial task's cycle holds its
// exchanges, `cards` times `exchange`.
class DESIGN {
 public:
  DESIGN(const PAUSES& pauses, int cards, std::int64_t exchange);

  // Serial task, master and IO task one after the other, in either direction: from a change at a
  // card to its line at the client, and from a line to its frame on the wire.
  SAMPLES ThreeLoops() const;

  // From a change's reply on the wire to the line at the client: master and IO task.
  SAMPLES TwoLoops() const;

  // Exchanges per second with `cards` polled cards.
  double ExchangeRate() const;

 private:
  SAMPLES master_;  // lengths of cycles
  SAMPLES task_;
  SAMPLES serial_;
  int cards_;
};

}  // namespace bench

#endif  // TALP_BENCH_PAUSE_MODEL_H_

#ifndef TALP_BENCH_REPORT_H_
#define TALP_BENCH_REPORT_H_

#include <map>
#include <string>
#include <vector>

#include "measure.h"
#include "pause_model.h"

namespace bench {

// All figures of one run.
struct FIGURES {
  std::vector<int> cards;
  std::map<int, PAUSES> pauses;      // by speed
  std::map<int, BARE_FIGURES> bare;  // by number of cards
  std::vector<RUN_FIGURES> runs;
  std::vector<IDLE_FIGURES> idle;
  bool raisedPriority = false;
  double loadBefore = 0;  // load averages: an idle machine is needed for figures to mean much
  double loadAfter = 0;

  DESIGN Design(const RUN_FIGURES& run) const;
};

// Ratios first, absolute figures second, on standard output.
void Print(const FIGURES& figures);

// The figures as one line, figures.json, and the distributions of the latencies, one file each,
// for latency.gp to draw. Throws std::runtime_error if a file cannot be written.
void Write(const FIGURES& figures, const std::string& directory);

}  // namespace bench

#endif  // TALP_BENCH_REPORT_H_

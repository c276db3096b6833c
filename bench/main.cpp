#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "measure.h"
#include "pause_model.h"
#include "priority.h"
#include "report.h"

namespace {

const bench::EXTENT kFull = {{1, 4, 16}, 400, 800, 400, 1500, 3000, 6150};
const bench::EXTENT kShort = {{1, 16}, 30, 30, 10, 200, 200, 500};

struct OPTIONS {
  std::string program;
  std::string directory;
  std::vector<int> speeds = {100, 50};
  long timerSlack = bench::kSystemTimerSlack;
  bool isShort = false;
};

double LoadAverage() {
  double load = 0;
  return getloadavg(&load, 1) == 1 ? load : -1;
}

bench::FIGURES Measure(const OPTIONS& options) {
  const bench::EXTENT& extent = options.isShort ? kShort : kFull;
  bench::FIGURES figures;
  figures.loadBefore = LoadAverage();
  for (const int speed : options.speeds) {
    figures.pauses[speed] =
        bench::MeasurePauses(bench::DelayOf(speed), options.timerSlack, extent.pauses);
  }
  figures.raisedPriority = bench::RaisePriority();
  for (const int cards : extent.cards) figures.bare[cards] = MeasureBareLoop(cards, extent);
  for (const int speed : options.speeds) {
    const bench::DAEMON_SETTINGS settings = {options.program, speed, options.timerSlack};
    for (const int cards : extent.cards) {
      figures.runs.push_back(MeasureRun(settings, cards, extent));
    }
    figures.idle.push_back(MeasureEmptyBus(settings, extent));
    figures.idle.push_back(MeasureWithoutAdapter(settings, extent));
  }
  figures.loadAfter = LoadAverage();
  return figures;
}

}  // namespace

int main(int argc, char** argv) {
  OPTIONS options;
  CLI::App app("Measures a talp binary on a card bus of its own; to be run inside talp-sandbox.");
  app.add_option("program", options.program, "the talp binary")->required();
  app.add_option("directory", options.directory, "where figures.json and the distributions go")
      ->required();
  app.add_option("--speed", options.speeds, "speeds in percent");
  app.add_option("--timer-slack", options.timerSlack,
                 "start the daemon with this timer slack (nanoseconds)");
  app.add_flag("--short", options.isShort, "only see that figures come out");
  CLI11_PARSE(app, argc, argv);
  try {
    const bench::FIGURES figures = Measure(options);
    bench::Write(figures, options.directory);
    bench::Print(figures);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "talp-bench: %s\n", error.what());
    return 1;
  }
  return 0;
}

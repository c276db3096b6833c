#include "report.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace bench {

namespace {

struct TWO {
  double median;
  double p99;
};

TWO Of(const SAMPLES& samples) { return {Percentile(samples, 50), Percentile(samples, 99)}; }

double Ratio(double value, double of) { return of > 0 ? value / of : 0; }

std::int64_t MedianExchange(const BARE_FIGURES& bare) {
  return bare.rate > 0 ? static_cast<std::int64_t>(1e9 / bare.rate) : 0;
}

void PrintRatios(const FIGURES& figures) {
  std::printf(
      "Ratios (p50, and p99 in brackets; 1.00 is the limit itself)\n\n"
      "                 change at card   reply on wire   IO line        change at card  polling\n"
      "                 -> IO line       -> IO line      -> frame       -> IO line      rate\n"
      "Speed   cards    / design         / design        / design       / bare loop     / design  "
      "/ bare\n");
  for (const RUN_FIGURES& run : figures.runs) {
    const DESIGN design = figures.Design(run);
    const BARE_FIGURES& bare = figures.bare.at(run.cards);
    const TWO three = Of(design.ThreeLoops());
    const TWO two = Of(design.TwoLoops());
    const TWO change = Of(run.change);
    const TWO report = Of(run.report);
    const TWO output = Of(run.output);
    std::printf(
        "%5d   %5d    %5.2f (%5.2f)    %5.2f (%5.2f)   %5.2f (%5.2f)  %6.2f          %5.2f     "
        "%5.2f\n",
        run.speed, run.cards, Ratio(change.median, three.median), Ratio(change.p99, three.p99),
        Ratio(report.median, two.median), Ratio(report.p99, two.p99),
        Ratio(output.median, three.median), Ratio(output.p99, three.p99),
        Ratio(change.median, Of(bare.change).median), Ratio(run.rate, design.ExchangeRate()),
        Ratio(run.rate, bare.rate));
  }
}

void PrintLatencies(const FIGURES& figures) {
  std::printf(
      "\nLatencies in microseconds, p50 / p99\n\n"
      "Speed   cards    change -> IO line  second IO line     reply -> IO line   IO line -> frame  "
      " "
      "design 3 loops     design 2 loops\n");
  for (const RUN_FIGURES& run : figures.runs) {
    const DESIGN design = figures.Design(run);
    std::printf("%5d   %5d  ", run.speed, run.cards);
    for (const SAMPLES& samples :
         {run.change, run.second, run.report, run.output, design.ThreeLoops(), design.TwoLoops()}) {
      const TWO two = Of(samples);
      if (samples.empty()) {
        std::printf("%9s %9s", "-", "");
      } else {
        std::printf("%9.0f / %-6.0f ", two.median, two.p99);
      }
    }
    std::printf("\n");
  }
  for (const auto& [cards, bare] : figures.bare) {
    const TWO change = Of(bare.change);
    const TWO exchange = Of(bare.exchange);
    std::printf(" bare   %5d  %9.0f / %-6.0f %18s %9.0f / %-6.0f\n", cards, change.median,
                change.p99, "", exchange.median, exchange.p99);
  }
}

void PrintCosts(const FIGURES& figures) {
  std::printf(
      "\nRates and costs\n\n"
      "Speed   case         exchanges/s  CPU s/s  peak KiB  threads  descriptors  lost\n");
  for (const RUN_FIGURES& run : figures.runs) {
    std::printf("%5d   %2d cards     %11.0f  %7.4f  %8ld  %7d  %11d  %4d\n", run.speed, run.cards,
                run.rate, run.cpu, run.cost.peakKilobytes, run.cost.threads, run.cost.descriptors,
                run.lost);
  }
  for (const IDLE_FIGURES& idle : figures.idle) {
    std::printf("%5d   %-12s           -  %7.4f  %8ld  %7d  %11d\n", idle.speed, idle.name.c_str(),
                idle.cpu, idle.cost.peakKilobytes, idle.cost.threads, idle.cost.descriptors);
  }
  for (const auto& [cards, bare] : figures.bare) {
    std::printf(" bare   %2d cards     %11.0f\n", cards, bare.rate);
  }
}

void PrintPauses(const FIGURES& figures) {
  std::printf("\nPauses as this kernel takes them, in microseconds, p50 / p99\n\n");
  for (const auto& [speed, pauses] : figures.pauses) {
    const TWO delay = Of(pauses.delay);
    const TWO idle = Of(pauses.idle);
    std::printf("Speed %3d: usleep(%d) %.0f / %.0f, a sleep of 0.1 %.0f / %.0f\n", speed,
                DelayOf(speed), delay.median, delay.p99, idle.median, idle.p99);
  }
  std::printf(
      "\nload average %.2f before, %.2f after; the bus and the clients have %s priority\n\n",
      figures.loadBefore, figures.loadAfter, figures.raisedPriority ? "real-time" : "no raised");
}

// One line of JSON, put together piece by piece.
class JSON_LINE {
 public:
  __attribute__((format(printf, 2, 3))) void Add(const char* format, ...) {
    char piece[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(piece, sizeof piece, format, arguments);
    va_end(arguments);
    text_ += piece;
  }

  void AddPair(const char* name, const SAMPLES& samples) {
    const TWO two = Of(samples);
    Add("\"%s\":[%.1f,%.1f],", name, two.median, two.p99);
  }

  // In place of the comma behind the last member.
  void Close(const char* brackets) {
    if (text_.back() == ',') text_.pop_back();
    text_ += brackets;
  }

  const std::string& Text() const { return text_; }

 private:
  std::string text_ = "{";
};

void AddCost(const COST& cost, double cpu, JSON_LINE* json) {
  json->Add("\"cpu\":%.5f,\"peak_kib\":%ld,\"threads\":%d,\"descriptors\":%d", cpu,
            cost.peakKilobytes, cost.threads, cost.descriptors);
}

std::string Json(const FIGURES& figures) {
  JSON_LINE json;
  json.Add("\"unit\":\"us\",\"load\":[%.2f,%.2f],\"runs\":[", figures.loadBefore,
           figures.loadAfter);
  for (const RUN_FIGURES& run : figures.runs) {
    const DESIGN design = figures.Design(run);
    json.Add("{\"speed\":%d,\"cards\":%d,", run.speed, run.cards);
    json.AddPair("change_to_line", run.change);
    json.AddPair("reply_to_line", run.report);
    json.AddPair("second_change_to_line", run.second);
    json.AddPair("line_to_frame", run.output);
    json.AddPair("design_three_loops", design.ThreeLoops());
    json.AddPair("design_two_loops", design.TwoLoops());
    json.Add("\"rate\":%.0f,\"design_rate\":%.0f,\"lost\":%d,", run.rate, design.ExchangeRate(),
             run.lost);
    AddCost(run.cost, run.cpu, &json);
    json.Add("},");
  }
  json.Close("],\"bare\":[");
  for (const auto& [cards, bare] : figures.bare) {
    json.Add("{\"cards\":%d,", cards);
    json.AddPair("change_to_seen", bare.change);
    json.AddPair("reply_to_seen", bare.exchange);
    json.Add("\"rate\":%.0f},", bare.rate);
  }
  json.Close("],\"idle\":[");
  for (const IDLE_FIGURES& idle : figures.idle) {
    json.Add("{\"case\":\"%s\",\"speed\":%d,", idle.name.c_str(), idle.speed);
    AddCost(idle.cost, idle.cpu, &json);
    json.Add("},");
  }
  json.Close("]}");
  return json.Text();
}

void WriteDistribution(const std::string& path, SAMPLES samples) {
  std::sort(samples.begin(), samples.end());
  std::ofstream file(path);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    file << static_cast<double>(samples[i]) / 1000 << ' '
         << static_cast<double>(i + 1) / static_cast<double>(samples.size()) << '\n';
  }
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace

DESIGN FIGURES::Design(const RUN_FIGURES& run) const {
  return DESIGN(pauses.at(run.speed), run.cards, MedianExchange(bare.at(run.cards)));
}

void Print(const FIGURES& figures) {
  PrintRatios(figures);
  PrintLatencies(figures);
  PrintCosts(figures);
  PrintPauses(figures);
}

void Write(const FIGURES& figures, const std::string& directory) {
  for (const RUN_FIGURES& run : figures.runs) {
    const std::string end = std::to_string(run.speed) + "-" + std::to_string(run.cards) + ".dat";
    WriteDistribution(directory + "/input-" + end, run.change);
    WriteDistribution(directory + "/output-" + end, run.output);
    WriteDistribution(directory + "/design-" + end, figures.Design(run).ThreeLoops());
  }
  for (const auto& [cards, bare] : figures.bare) {
    WriteDistribution(directory + "/bare-" + std::to_string(cards) + ".dat", bare.change);
  }
  std::ofstream(directory + "/figures.json") << Json(figures) << '\n';
}

}  // namespace bench

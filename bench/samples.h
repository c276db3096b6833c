#ifndef TALP_BENCH_SAMPLES_H_
#define TALP_BENCH_SAMPLES_H_

#include <cstdint>
#include <vector>

namespace bench {

// Durations in nanoseconds.
using SAMPLES = std::vector<std::int64_t>;

// The value that `percent` of the samples do not exceed, in microseconds; 0 without samples.
double Percentile(SAMPLES samples, double percent);

}  // namespace bench

#endif  // TALP_BENCH_SAMPLES_H_

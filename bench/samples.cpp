#include "samples.h"

#include <algorithm>
#include <cstddef>

namespace bench {

double Percentile(SAMPLES samples, double percent) {
  if (samples.empty()) return 0;
  const double last = static_cast<double>(samples.size() - 1);
  const auto rank = static_cast<std::ptrdiff_t>(last * percent / 100 + 0.5);
  std::nth_element(samples.begin(), samples.begin() + rank, samples.end());
  return static_cast<double>(samples[static_cast<std::size_t>(rank)]) / 1000;
}

}  // namespace bench

#include "core/speed.h"

#include <limits>

int DelayFromPercent(long percent) {
  const float delay = (500000.0F - static_cast<float>(percent) * 4999.0F) / 99.0F;
  // Converting a float that is out of int's range is undefined. 2^31 is exact as a float.
  constexpr float kLimit = 2147483648.0F;
  if (delay >= kLimit) return std::numeric_limits<int>::max();
  if (delay < -kLimit) return std::numeric_limits<int>::min();
  return static_cast<int>(delay);
}

#ifndef TALP_CORE_SPEED_H_
#define TALP_CORE_SPEED_H_

constexpr int kDefaultDelay = 5000;  // microseconds, the delay of Speed 1 %
constexpr long kSlowestPercent = 1;
constexpr long kFastestPercent = 100;

// The pause of every loop, in microseconds, at a speed of `percent`: 5000 at 1, 1 at 100. Values
// outside 1..100 are not refused: 0 gives 5050, 101 gives -49 (a negative pause is no pause), and
// the result saturates at the bounds of int. Any thread.
int DelayFromPercent(long percent);

#endif  // TALP_CORE_SPEED_H_

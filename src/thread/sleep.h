#ifndef TALP_THREAD_SLEEP_H_
#define TALP_THREAD_SLEEP_H_

// Pauses the calling thread for `hundredNanoseconds` times 100 ns. The unit is deliberate: 50000
// is 5 ms.
void Sleep(unsigned hundredNanoseconds);

// The same for a pause between two passes of a loop, which may be too short to put a thread to
// sleep for.
void IdleBetweenPasses(unsigned hundredNanoseconds);

// Pauses the calling thread for `microseconds`. Less than 10 is no sleep: the thread yields the
// processor and looks at the clock until the time is over. A delay of 0 or less is only the yield:
// speeds above 100 % give negative delays, which usleep(3) would take for more than an hour.
void PauseMicroseconds(int microseconds);

#endif  // TALP_THREAD_SLEEP_H_

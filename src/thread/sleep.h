#ifndef TALP_THREAD_SLEEP_H_
#define TALP_THREAD_SLEEP_H_

// Pauses the calling thread. The unit is 100 ns: 50000 is 5 ms.
void Sleep(unsigned hundredNanoseconds);

// The same for the pause between two passes of a loop. A pause of less than 10 microseconds is
// spent reading the clock, because a sleep would take longer.
void IdleBetweenPasses(unsigned hundredNanoseconds);

// Pauses the calling thread for `microseconds`. Below 10 it does not sleep: it yields the processor
// and reads the clock until the time is over. For 0 or less it only yields: speeds above 100 % give
// negative delays, which usleep(3) would treat as more than an hour.
void PauseMicroseconds(int microseconds);

#endif  // TALP_THREAD_SLEEP_H_

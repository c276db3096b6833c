#ifndef TALP_CORE_SLEEPSEC_H_
#define TALP_CORE_SLEEPSEC_H_

// Pauses the calling thread for whole seconds by running the shell's sleep. The pause is shorter if
// that command fails or is killed. If it cannot be run at all (no process, no memory, no such
// command), the thread sleeps by itself, so that loops that retry every few seconds never retry
// without a pause. Any thread.
void sleepsec(int seconds);

#endif  // TALP_CORE_SLEEPSEC_H_

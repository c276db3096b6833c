#ifndef TALP_CORE_SLEEPSEC_H_
#define TALP_CORE_SLEEPSEC_H_

// Pauses the calling thread for whole seconds, by the shell's sleep. Where that cannot be run
// (no process or memory to be had) it pauses by itself, so that what retries every few seconds
// never retries without a pause. Any thread.
void sleepsec(int seconds);

#endif  // TALP_CORE_SLEEPSEC_H_

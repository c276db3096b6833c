#ifndef TALP_BENCH_PRIORITY_H_
#define TALP_BENCH_PRIORITY_H_

namespace bench {

// Gives the calling thread a real-time priority (sched(7)), so that what measures does not wait
// for what is measured. Threads and processes that it creates do not inherit it. False where the
// system does not allow it: the figures then hold the measurer's own delays too.
bool RaisePriority();

}  // namespace bench

#endif  // TALP_BENCH_PRIORITY_H_

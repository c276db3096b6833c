#include "priority.h"

#include <sched.h>

namespace bench {

bool RaisePriority() {
  sched_param parameter{};
  parameter.sched_priority = 10;
  return sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameter) == 0;
}

}  // namespace bench

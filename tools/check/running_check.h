#ifndef CHECK_RUNNING_CHECK_H
#define CHECK_RUNNING_CHECK_H

#include <chrono>
#include <string>

#include "check/findings.h"

namespace check {

// What is wrong with the running daemon, held against the configuration at `path`. Only looks:
// a connection would take the place of the one client of an interface. Errors must last for
// `patience` to count, which gives a daemon that starts, or an interface that opens anew behind a
// client that has left, the time to come up; without errors it returns at once.
FINDINGS CheckRunning(const std::string& path, std::chrono::seconds patience);

}  // namespace check

#endif

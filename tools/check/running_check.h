#ifndef TALP_TOOLS_CHECK_RUNNING_CHECK_H_
#define TALP_TOOLS_CHECK_RUNNING_CHECK_H_

#include <chrono>
#include <string>

#include "check/findings.h"

namespace check {

// What is wrong with the running daemon, compared with the configuration at `path`; an interface
// that is not configured is not judged. Only looks: a connection would take the place of the one
// client of an interface. While there is an error it looks again, for up to `wait`, because a
// daemon that starts, or an interface whose client has left, takes seconds to listen. Returns at
// once without an error, and with one that only another user can get past.
FINDINGS CheckRunning(const std::string& path, std::chrono::seconds wait);

}  // namespace check

#endif  // TALP_TOOLS_CHECK_RUNNING_CHECK_H_

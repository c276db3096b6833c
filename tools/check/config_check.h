#ifndef TALP_TOOLS_CHECK_CONFIG_CHECK_H_
#define TALP_TOOLS_CHECK_CONFIG_CHECK_H_

#include <string>
#include <vector>

#include "check/findings.h"
#include "core/config.h"

namespace check {

// What is wrong, or has no effect, in the configuration at `path`, in document order. What the
// daemon refuses is found by the daemon's own reader. Opens nothing for writing: whether the log
// can be written is checked for the user that runs this.
FINDINGS CheckConfig(const std::string& path);

struct NAMED_INTERFACE {
  const char* name;
  const INTERFACE_DESCRIPTOR* interface;
};

// The interfaces that the daemon builds, in the order of their start.
std::vector<NAMED_INTERFACE> InterfacesOf(const CONFIG_DESCRIPTOR& config);

// False if the configuration leaves the interface out, or gives it no port.
bool Listens(const NAMED_INTERFACE& named);

}  // namespace check

#endif  // TALP_TOOLS_CHECK_CONFIG_CHECK_H_

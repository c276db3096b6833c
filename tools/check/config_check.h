#ifndef CHECK_CONFIG_CHECK_H
#define CHECK_CONFIG_CHECK_H

#include <array>
#include <string>

#include "check/findings.h"
#include "core/config.h"

namespace check {

// What is wrong, or not as it looks, in the configuration at `path`, in document order. What the
// daemon itself refuses comes from its own reader. Opens nothing for writing: whether the log can
// be written is asked for the user that runs this.
FINDINGS CheckConfig(const std::string& path);

struct NAMED_INTERFACE {
  const char* name;
  const INTERFACE_DESCRIPTOR* interface;
};

// The interfaces that the daemon builds, in the order of their start.
std::array<NAMED_INTERFACE, 3> InterfacesOf(const CONFIG_DESCRIPTOR& config);

}  // namespace check

#endif

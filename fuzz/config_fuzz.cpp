// The configuration document: what the daemon's reader makes of it, and what talp-check says.

#include <sys/mman.h>
#include <unistd.h>

#include <set>

#include "check/config_check.h"
#include "fuzz_input.h"

namespace {

// Puts the document into a file that exists in memory only, and returns its path.
std::string Document(const std::uint8_t* data, std::size_t size) {
  static const int kFile = memfd_create("talpconf.xml", MFD_CLOEXEC);
  Require(ftruncate(kFile, 0) == 0 && pwrite(kFile, data, size, 0) == static_cast<ssize_t>(size),
          "the document is in the file");
  return "/proc/self/fd/" + std::to_string(kFile);
}

// Whether the daemon starts, and listens on every port that it is given.
bool Serves(const CONFIG_DESCRIPTOR& config) {
  constexpr int kHighestPort = 65535;
  bool distinct = true;
  std::set<int> ports;
  for (const INTERFACE_DESCRIPTOR* interface : {&config.io, &config.cae, &config.mon}) {
    Require(interface->inpSeparator.find("\\n") == std::string::npos, "no escape is left");
    if (interface->port == 0) continue;
    Require(interface->port > kHighestRefusedPort, "no refused port is stored");
    distinct = ports.insert(interface->port).second && distinct;
  }
  return config.errorText == kNoConfigError && distinct && !ports.empty() &&
         *ports.rbegin() <= kHighestPort;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = Document(data, size);
  const bool serves = Serves(ReadConfigFile(path.c_str()));
  bool errors = false;
  for (const check::FINDING& finding : check::CheckConfig(path)) {
    // An entry that is replaced or ignored may have such a port, and the daemon serves anyway.
    const bool ofAnyEntry = serves && finding.text.find("above 65535") != std::string::npos;
    errors = errors || (finding.severity == check::kError && !ofAnyEntry);
  }
  Require(errors != serves, "there are errors where the daemon does not serve, and only there");
  return 0;
}

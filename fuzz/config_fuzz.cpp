// The configuration document, read from a file in memory.

#include "core/config.h"
#include "memory_file.h"

namespace {

constexpr char kPortError[] = " interface port number is less than 1025";

void CheckInterface(const INTERFACE_DESCRIPTOR& interface, const char* name) {
  for (const std::string& separator : {interface.inpSeparator, interface.outSeparator}) {
    Require(separator.find("\\r") == std::string::npos, "no escape is left in a separator");
    Require(separator.find("\\n") == std::string::npos, "no escape is left in a separator");
  }
  Require(interface.state == Idle, "the state is not configured");
  Require(interface.port == 0 || interface.port > kHighestRefusedPort, "no refused port is stored");
  Require(interface.name.empty() || interface.name == name, "an entry goes to its own slot");
}

void CheckConfig(const CONFIG_DESCRIPTOR& config) {
  const std::string& error = config.errorText;
  const std::size_t tail = error.size() - std::min(error.size(), sizeof kPortError - 1);
  Require(error == kNoConfigError || error == kConfigLoadError || error.substr(tail) == kPortError,
          "the error text is one of three");
  CheckInterface(config.io, "IO");
  CheckInterface(config.cae, "CAE");
  CheckInterface(config.mon, "MON");
  Require(config.fourth.name.empty() && config.fourth.port == 0, "the fourth slot is never filled");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const MEMORY_FILE file(data, size);
  CheckConfig(ReadConfigFile(file.Path().c_str()));
  return 0;
}

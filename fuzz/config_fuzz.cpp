// The configuration document, read from a file in memory.

#include <sys/mman.h>
#include <unistd.h>

#include "core/config.h"
#include "fuzz_input.h"

namespace {

constexpr char kPortError[] = " interface port number is less than 1025";

std::string PathOf(int file) { return "/proc/self/fd/" + std::to_string(file); }

int FileWith(const std::uint8_t* data, std::size_t size) {
  const int file = memfd_create("talpconf.xml", MFD_CLOEXEC);
  Require(file >= 0, "there is a file in memory");
  Require(write(file, data, size) == static_cast<ssize_t>(size), "the document is in the file");
  return file;
}

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
  const int file = FileWith(data, size);
  CheckConfig(ReadConfigFile(PathOf(file).c_str()));
  close(file);
  return 0;
}

// The configuration document as talp-check judges it, against what the daemon's reader makes of it.

#include "check/config_check.h"
#include "memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const MEMORY_FILE file(data, size);
  const check::FINDINGS findings = check::CheckConfig(file.Path());
  Require(!findings.empty(), "every document is judged");
  if (ReadConfigFile(file.Path().c_str()).errorText == kNoConfigError) return 0;
  Require(check::WorstOf(findings) == check::Error, "what the daemon refuses is an error");
  return 0;
}

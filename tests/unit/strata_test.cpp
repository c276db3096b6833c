#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "support.h"

namespace {

// A file leans on files of its own stratum and of lower ones. Lowest first.
constexpr const char* kStrata[] = {
    "core/byte_list",
    "core/speed bus/frame net/client_framing net/io_command master/card_kinds master/perifcard "
    "master/cae_line master/help_texts",
    "thread/sleep thread/mutex thread/event thread/cthread thread/shared core/logger core/sleepsec "
    "bus/tlqueue master/card_table",
    "core/config",
    "bus/serial_port bus/serial_interface net/socket_interface master/cae_commands "
    "master/cae_card_commands",
    "core/talp core/main master/talp_master net/talp_io",
};

// -1 for a file that is in none.
int StratumOf(const std::string& file) {
  int stratum = 0;
  for (const std::string files : kStrata) {
    if ((" " + files + " ").find(" " + file + " ") != std::string::npos) return stratum;
    ++stratum;
  }
  return -1;
}

TEST(Strata, IncludesPointDownwards) {
  int includes = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(TALP_SOURCE_DIR)) {
    const std::string ending = entry.path().extension();
    if (ending != ".h" && ending != ".cpp") continue;
    const std::string file = entry.path().lexically_relative(TALP_SOURCE_DIR).replace_extension("");
    EXPECT_GE(StratumOf(file), 0) << file;
    std::istringstream lines(ReadFile(entry.path()));
    for (std::string line; std::getline(lines, line);) {
      if (line.find("#include \"") != 0) continue;
      const std::string name = line.substr(10, line.rfind(".h\"") - 10);
      EXPECT_GE(StratumOf(name), 0) << file << " includes " << name;
      EXPECT_LE(StratumOf(name), StratumOf(file)) << file << " includes " << name;
      ++includes;
    }
  }
  EXPECT_GT(includes, 0);
}

}  // namespace

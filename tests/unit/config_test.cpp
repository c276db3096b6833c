#include "core/config.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "support.h"

namespace {

void Describe(const char* slot, const INTERFACE_DESCRIPTOR& interface, std::ostream* text) {
  if (interface.name.empty()) return;
  *text << " " << slot << "(" << interface.name << " " << interface.port << " "
        << interface.inpSeparator << " " << interface.outSeparator << " " << interface.delay << ")";
}

std::string Described(const CONFIG_DESCRIPTOR& config) {
  std::ostringstream text;
  text << "[" << config.logFile << "] " << config.logLevel << " " << config.threadDelay << " "
       << config.pollEnable << " " << config.autoDiscover << " " << config.errorText;
  Describe("IO", config.io, &text);
  Describe("CAE", config.cae, &text);
  Describe("MON", config.mon, &text);
  Describe("4th", config.fourth, &text);
  return Replaced(Replaced(text.str(), "\r", "^M"), "\n", "^J");
}

TEST(Config, Documents) {
  const TEMP_DIR directory;
  ExpectCases("config.txt", [&](const std::string& document) {
    return Described(ReadConfigFile(directory.Write("conf.xml", document).c_str()));
  });
  EXPECT_EQ("Unable to load config, or unable to parse XML file!",
            ReadConfigFile("/nonexistent/conf.xml").errorText);
}

}  // namespace

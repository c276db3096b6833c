#include "core/logger.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support.h"

namespace {

LOGGER LoggerTo(const std::string& path, int level) {
  LOGGER logger;
  logger.fileName = path;
  logger.level = level;
  return logger;
}

TEST(Logger, Lines) {
  const TEMP_DIR directory;
  const std::string path = directory.Path("log");
  LOGGER logger = LoggerTo(path, 1);
  LOGGER copy(logger);
  const std::string longText(3000, 'x');
  logger.LOG("INF", "gone", 1);
  std::filesystem::remove(path);
  logger.LOG("INF", "talp is started", 1);
  copy.LOG("ERR", longText, 2);
  const std::string stamp = "[0-9]{4}-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9] ";
  const std::string lines = stamp + "\\[INF\\] talp is started\n" + stamp + "\\[ERR\\] x+\n";
  EXPECT_TRUE(testing::Matcher<std::string>(testing::MatchesRegex(lines)).Matches(ReadFile(path)));
  EXPECT_NE(std::string::npos, ReadFile(path).find(longText));
}

TEST(Logger, LevelsAndFilesThatCannotBeOpened) {
  const TEMP_DIR directory;
  const std::ptrdiff_t descriptors = OpenDescriptors();
  for (const int level : {-1, 1, 2}) {
    const std::string path = directory.Path(std::to_string(level));
    LoggerTo(path, level).LOG("INF", "line", 1);
    EXPECT_TRUE(std::filesystem::exists(path)) << level;
    EXPECT_EQ(level <= 1, !ReadFile(path).empty()) << level;
  }
  for (const std::string& path : {std::string(), directory.Path("none/log"), directory.Path("")}) {
    LoggerTo(path, 0).LOG("INF", "line", 1);
  }
  EXPECT_EQ(descriptors, OpenDescriptors());
}

}  // namespace

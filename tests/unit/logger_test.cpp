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

bool Matches(const std::string& pattern, const std::string& text) {
  return testing::Matcher<std::string>(testing::MatchesRegex(pattern)).Matches(text);
}

TEST(Logger, Lines) {
  const TEMP_DIR directory;
  const std::string path = directory.Path("log");
  LOGGER logger = LoggerTo(path, 1);
  LOGGER copy(logger);
  const std::string longText(3000, 'x');
  logger.LOG("INF", "talp is started", 1);
  copy.LOG("ERR", longText, 2);
  const std::string stamp = "[0-9]{4}-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9] ";
  EXPECT_TRUE(
      Matches(stamp + "\\[INF\\] talp is started\n" + stamp + "\\[ERR\\] x+\n", ReadFile(path)));
  EXPECT_NE(std::string::npos, ReadFile(path).find(longText));
  std::filesystem::remove(path);
  logger.LOG("INF", "again", 1);
  EXPECT_TRUE(Matches(stamp + "\\[INF\\] again\n", ReadFile(path)));
}

TEST(Logger, LevelsAndFilesThatCannotBeOpened) {
  const TEMP_DIR directory;
  const std::ptrdiff_t descriptors = OpenDescriptors();
  const struct {
    const char* name;
    int level;
    bool written;
  } rows[] = {{"negative", -1, true}, {"equal", 1, true}, {"above", 2, false}};
  for (const auto& row : rows) {
    const std::string path = directory.Path(row.name);
    LoggerTo(path, row.level).LOG("INF", "line", 1);
    EXPECT_TRUE(std::filesystem::exists(path)) << row.name;
    EXPECT_EQ(row.written, !ReadFile(path).empty()) << row.name;
  }
  for (const std::string& path : {std::string(), directory.Path("none/log"), directory.Path("")}) {
    LoggerTo(path, 0).LOG("INF", "line", 1);
  }
  EXPECT_EQ(descriptors, OpenDescriptors());
}

}  // namespace

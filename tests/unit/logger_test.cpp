#include "core/logger.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
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
  logger.LOG("INF", "talp is started", 1);
  copy.LOG("ERR", longText, 2);
  const std::string stamp = R"(\d{4}-[01]\d-[0-3]\d [0-2]\d:[0-5]\d:[0-6]\d )";
  const std::regex lines(stamp + R"(\[INF\] talp is started\n)" + stamp + R"(\[ERR\] (x+)\n)");
  const std::string content = ReadFile(path);
  std::smatch match;
  ASSERT_TRUE(std::regex_match(content, match, lines)) << content;
  EXPECT_EQ(longText, match[1]);
  std::filesystem::remove(path);
  logger.LOG("INF", "again", 1);
  EXPECT_TRUE(std::regex_match(ReadFile(path), std::regex(stamp + R"(\[INF\] again\n)")));
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

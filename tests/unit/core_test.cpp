#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "core/byte_list.h"
#include "core/config.h"
#include "core/file_descriptor.h"
#include "core/logger.h"
#include "core/sleepsec.h"
#include "support.h"

namespace {

constexpr int kLongPause = 1000;  // seconds; longer than any other pause of the test program
int longPauses = 0;

}  // namespace

// Stands in for the C library's: counts the pauses that are under test instead of making them.
extern "C" int nanosleep(const timespec* pause, timespec* rest) {
  if (pause->tv_sec < kLongPause) return clock_nanosleep(CLOCK_MONOTONIC, 0, pause, rest);
  ++longPauses;
  return 0;
}

namespace {

TEST(SleepSec, PausesByItselfOnlyIfTheShellCouldNot) {
  const auto pausesAfter = [](const char* script) {
    const STUBBED_SLEEP sleep(script);
    longPauses = 0;
    sleepsec(kLongPause);
    return longPauses;
  };
  for (const char* ran : {"exit 125", "kill -INT $$"}) EXPECT_EQ(0, pausesAfter(ran)) << ran;
  for (const char* failed : {"exit 126", "exit 127"}) EXPECT_EQ(1, pausesAfter(failed));
  signal(SIGCHLD, SIG_IGN);  // as a parent may leave it; no status can be read then
  EXPECT_EQ(0, pausesAfter("exit 0"));
  signal(SIGCHLD, SIG_DFL);
}

TEST(ByteList, EmptyTextIsOneZeroByte) { EXPECT_EQ("00", ToHex(Convert_String2QList(""))); }

TEST(ByteList, ReplyClasses) {
  std::string classes = std::to_string(GetQListError({}));
  for (const char code : std::string("T\x12#$NBCtQ\x92")) {
    classes += std::to_string(GetQListError({code, 'T'}));
  }
  EXPECT_EQ("51233466000", classes);
}

TEST(Logger, WholeLinesOfTheLevelsKept) {
  const TEMP_DIR directory;
  LOGGER logger;
  logger.fileName = directory.Path("log");
  logger.level = 2;
  logger.LOG("INF", "filtered", 1);
  EXPECT_TRUE(std::filesystem::remove(logger.fileName));  // the file appears all the same
  LOGGER copy(logger);
  copy.LOG("INF", "talp is started", 2);
  logger.LOG("ERR", std::string(3000, 'x'), 3);
  const std::string stamp = "[0-9]{4}-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9] ";
  const std::string lines = stamp + "\\[INF\\] talp is started\n" + stamp + "\\[ERR\\] x+\n";
  const std::string text = ReadFile(logger.fileName);
  EXPECT_TRUE(testing::Matcher<std::string>(testing::MatchesRegex(lines)).Matches(text)) << text;
  EXPECT_NE(std::string::npos, text.find(std::string(3000, 'x')));
}

// The zone may be set while the daemon runs.
TEST(Logger, LocalTimeOfTheZoneThatIsSetNow) {
  const TEMP_DIR directory;
  LOGGER logger;
  logger.fileName = directory.Path("log");
  const char* const before = getenv("TZ");
  const std::string zoneBefore = before == nullptr ? "" : before;
  constexpr std::pair<const char*, int> kZones[] = {{"EAST-5", 5}, {"WEST7", -7}, {"UTC0", 0}};
  for (const auto& [zone, hours] : kZones) {
    setenv("TZ", zone, 1);
    const time_t earliest = time(nullptr);
    logger.LOG("INF", zone, 1);
    std::set<std::string> times;
    for (time_t now = earliest; now <= time(nullptr); ++now) {
      const time_t shifted = now + hours * 3600;
      tm utc{};
      gmtime_r(&shifted, &utc);
      char text[20];
      times.emplace(text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc));
    }
    const std::string line = ReadFile(logger.fileName);
    EXPECT_EQ(1U, times.count(line.substr(0, line.find(" ["))))
        << line << "is not local in " << zone;
    std::filesystem::remove(logger.fileName);
  }
  if (before == nullptr) {
    unsetenv("TZ");
  } else {
    setenv("TZ", zoneBefore.c_str(), 1);
  }
}

TEST(Logger, DropsLinesForAPipe) {
  const TEMP_DIR directory;
  LOGGER logger;
  logger.fileName = directory.Path("fifo");
  ASSERT_EQ(0, mkfifo(logger.fileName.c_str(), 0600));
  logger.LOG("INF", "without a reader this would block", 1);
  const FILE_DESCRIPTOR reader(open(logger.fileName.c_str(), O_RDONLY | O_NONBLOCK));
  logger.LOG("INF", "with a reader this would come out", 1);
  char bytes[100];
  EXPECT_EQ(0, read(reader.Number(), bytes, sizeof bytes));
}

void Describe(const INTERFACE_DESCRIPTOR& interface, std::ostream* text) {
  if (interface.name.empty()) return;
  *text << " " << interface.name << " " << interface.port << " " << interface.inpSeparator << " "
        << interface.outSeparator << " " << interface.delay;
}

// What is not as by default.
std::string Described(const CONFIG_DESCRIPTOR& config) {
  std::ostringstream text;
  if (config.logLevel != 0) text << " level " << config.logLevel;
  if (!config.logFile.empty()) text << " log " << config.logFile;
  if (config.threadDelay != kDefaultDelay) text << " delay " << config.threadDelay;
  if (config.pollEnable) text << " polls";
  if (config.autoDiscover) text << " discovers";
  if (config.errorText != kNoConfigError) text << " error " << config.errorText;
  Describe(config.io, &text);
  Describe(config.cae, &text);
  Describe(config.mon, &text);
  return text.str();
}

constexpr CASE kSettings[] = {
    {"<Debuglog Loglevel='-2x' File='/a b'/><debuglog File='/c'/>", " level -2 log /a b"},
    {"<InitPollState Action='true'/><AutoDiscover Action='TRUE'/>", " polls discovers"},
    {"<InitPollState Action='1'/><AutoDiscover Action='yes'/>", ""},
    {"<Speed>", " error Unable to load config, or unable to parse XML file!"},

    // Speed is bounded by int only.
    {"<Speed Percent='1'/><!-- again --><Speed Percent='75'/>", " delay 1263"},
    {"<Speed Percent='101'/>", " delay -49"},
    {"<Speed Percent='99999999999999999999'/>", " delay -2147483648"},
    {"<Speed Percent='-99999999999'/>", " delay 2147483647"},
};

constexpr CASE kEntries[] = {
    {"<a Name='IO' Port='1025'/>", " IO 1025 \r\n \r\n 5000"},
    {"<a Name='CAE' InpSeparator='\\n'/>", " CAE 0 \n \r\n 5000"},
    {"<!-- -->text<a Name='MON' OutSeparator='\\\\r;\\t'/>", " MON 0 \r\n \\\r;\\t 5000"},
    {"<a Name='io' Port='2000'/><a Name='DMI' Port='3000'/>", ""},
    // Four entries and no more, whatever they are.
    {"<a/><a/><a/><a Name='IO'/><a Name='CAE' Port='1'/>", " IO 0 \r\n \r\n 5000"},

    // A second element starts from what the first one left in each place. Speed counts for what
    // stands after it.
    {"<a Name='IO' Port='2000' InpSeparator=';'/></Interfaces><Interfaces><a Name='MON'/>",
     " IO 2000 ; \r\n 5000 MON 2000 ; \r\n 5000"},
    {"<a Name='IO'/></Interfaces><Speed Percent='100'/><Interfaces><a Name='CAE'/>",
     " delay 1 IO 0 \r\n \r\n 5000 CAE 0 \r\n \r\n 1"},

    // A refused port ends the reading.
    {"<a Port='80' Name='CAE'/><a Name='MON'/>", " error  interface port number is less than 1025"},
    {"<a Name='IO'/><a Name='MON' Port='1024'/><a Name='CAE' Port='3000'/>",
     " error MON interface port number is less than 1025 IO 0 \r\n \r\n 5000"},
};

TEST(Config, Documents) {
  const TEMP_DIR directory;
  const auto root = [&](const std::string& content) {
    const std::string document = "<TALPConfig>" + content + "</TALPConfig>";
    return Described(ReadConfigFile(directory.Write("conf.xml", document).c_str()));
  };
  ExpectCases(root, kSettings);
  ExpectCases([&](const std::string& s) { return root("<Interfaces>" + s + "</Interfaces>"); },
              kEntries);
}

}  // namespace

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "calls.h"
#include "core/byte_list.h"
#include "core/config.h"
#include "core/file_descriptor.h"
#include "core/logger.h"
#include "core/sleepsec.h"
#include "support.h"

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

TEST(ByteList, Conversions) {
  EXPECT_EQ("00", ToHex(Convert_String2QList("")));
  EXPECT_EQ("", ToHex(Convert_CharBuff2QList("")));
  EXPECT_EQ("41 FF", ToHex(Convert_CharBuff2QList("A\xFF")));
  EXPECT_EQ("41 00", ToHex(Convert_BinBuff2QList("\2A\0B")));
  EXPECT_EQ("A", Convert_CharBuff2String("A\0B"));
  char bytes[] = "xxxx";
  Convert_QList2BinBuff({'A', '\0'}, bytes);
  EXPECT_EQ("41 00 78 78", ToHex(std::string(bytes, 4)));
  for (const CASE& row : {CASE{"", "00"}, {"F", "0F"}, {"1f", "10"}, {"A5C", "A5"}}) {
    EXPECT_EQ(row.result, ToHex(REPLY{Convert_HexStr2Byte(row.input)})) << row.input;
  }
}

TEST(ByteList, Dumps) {
  testing::internal::CaptureStdout();
  PrintBuffer("A\r", 2);
  PrintBufferID("\x1F\x20\xE1", 3, "IO");
  PrintQList({'A', '\0'});
  EXPECT_EQ(
      "Buffer content: A:65|.:13|\nIO Buffer content: .:31| :32|\xE1:225|\n"
      "List size: 2\nContent: A:65|.:0|\n",
      testing::internal::GetCapturedStdout());
}

TEST(ByteList, ReplyClasses) {
  EXPECT_EQ(5, GetQListError({}));
  const std::pair<char, int> codes[] = {{'T', 1}, {0x12, 2}, {'#', 3}, {'$', 3}, {'N', 4},
                                        {'B', 6}, {'C', 6},  {'t', 0}, {'Q', 0}, {'\x92', 0}};
  for (const auto& [code, kind] : codes) EXPECT_EQ(kind, GetQListError({code, 'T'})) << code;
}

// In the local time of the zone that is set now, also where the system writes three bytes at a time
// and two threads write.
TEST(Logger, WholeLinesOfTheLevelsKept) {
  const TEMP_DIR directory;
  LOGGER logger;
  logger.fileName = directory.Path("log");
  logger.level = 2;
  setenv("TZ", "XXX-5:30", 1);
  const mode_t mask = umask(0);
  logger.LOG("INF", "filtered", 1);
  umask(mask);
  struct stat about {};
  stat(logger.fileName.c_str(), &about);
  EXPECT_EQ(0666U, about.st_mode & 0777U);
  EXPECT_TRUE(std::filesystem::remove(logger.fileName));  // the file appears all the same
  mostWritten = 3;
  now = 1000000000;
  LOGGER copy(logger);
  copy.LOG("INF", "one", 2);
  now += 86400 + 3600;
  setenv("TZ", "YYY7", 1);
  LOGGER assigned;
  assigned = copy;
  assigned.LOG("INF", "filtered", 1);
  assigned.LOG("ERR", "two", 3);
  EXPECT_EQ("2001-09-09 07:16:40 [INF] one\n2001-09-09 19:46:40 [ERR] two\n",
            ReadFile(logger.fileName));
  const auto many = [&logger] {
    for (int i = 0; i < 300; ++i) logger.LOG("ERR", "of a thread", 2);
  };
  std::thread other(many);
  many();
  other.join();
  mostWritten = 0;
  now = 0;
  unsetenv("TZ");
  tzset();
  std::istringstream text(ReadFile(logger.fileName));
  int whole = 0;
  for (std::string line; std::getline(text, line);) {
    whole += line == "2001-09-09 19:46:40 [ERR] of a thread" ? 1 : 0;
  }
  EXPECT_EQ(600, whole);
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
    {"<Debuglog Loglevel='99999999999999999999'/>", " level 2147483647"},
    {"<Debuglog Loglevel='-99999999999999999999'/>", " level -2147483648"},
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
    {"<a Name='io' Port='2000'/><a Name='DMI' Port='3000'/><a Name='MONITOR' Port='3000'/>", ""},
    {"<a Name='CAE' InpSeparator='\\n\\r\\n\\r'/>", " CAE 0 \n\r\n\r \r\n 5000"},
    {"<a Name='IO' Port='4294968320'/>", " IO 2147483647 \r\n \r\n 5000"},
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
    {"<a Name='IO' Port='0'/></Interfaces><Speed Percent='100'/><Interfaces>",
     " error IO interface port number is less than 1025"},
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
  const std::string other = "<Other><Speed Percent='75'/></Other>";
  EXPECT_EQ("", Described(ReadConfigFile(directory.Write("other.xml", other).c_str())));
}

}  // namespace

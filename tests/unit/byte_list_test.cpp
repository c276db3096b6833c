#include "core/byte_list.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>

#include "support.h"

namespace {

TEST(ByteList, Numbers) {
  EXPECT_EQ(12, ATOL("12abc"));
  EXPECT_EQ(-7, ATOL(" \t-7"));
  EXPECT_EQ(0, ATOL("") + ATOL("x1"));
  EXPECT_EQ(LONG_MAX, ATOL("99999999999999999999"));
  EXPECT_EQ("-2147483648", ITOA(INT_MIN));
  EXPECT_EQ("TRUE FALSE", BTOA(true) + " " + BTOA(false));
  for (const char* text : {"True", "true", "TRUE"}) EXPECT_TRUE(ATOB(text)) << text;
  for (const char* text : {"", "1", "yes", " True", "tRUE", "TRUE "}) EXPECT_FALSE(ATOB(text));
}

TEST(ByteList, HexadecimalDigitsAreUpperCaseOnly) {
  const std::string digits = "0123456789ABCDEF";
  for (int c = 0; c <= UCHAR_MAX; ++c) {
    const std::size_t at = digits.find(static_cast<char>(c));
    const unsigned value = at == std::string::npos ? 0 : static_cast<unsigned>(at);
    EXPECT_EQ(value, HexCharToByte(static_cast<char>(c))) << c;
  }
  EXPECT_EQ(0x0F, HexNum2Byte('f', 'F'));
  EXPECT_EQ(0x07, Convert_HexStr2Byte("7"));
  EXPECT_EQ(0xA5, Convert_HexStr2Byte("A5FF"));
}

TEST(ByteList, Conversions) {
  using std::string_literals::operator""s;
  EXPECT_EQ("AB", Convert_QList2String(FromHex("41 42 00 43")));
  EXPECT_EQ(2000U, Convert_QList2String(BYTE_LIST(2000, 'x')).size());
  EXPECT_EQ("00", ToHex(Convert_String2QList("\0A"s)));
  EXPECT_EQ("41 FF", ToHex(Convert_String2QList("A\xFF\0B"s)));
  EXPECT_EQ("41 FF", ToHex(Convert_CharBuff2QList("A\xFF")));
  EXPECT_EQ("", ToHex(Convert_BinBuff2QList("\0xyz")));
  EXPECT_EQ("78 79 7A", ToHex(Convert_BinBuff2QList("\3xyz!")));
  EXPECT_EQ(255U, Convert_BinBuff2QList(std::string(256, '\xFF').data()).size());
  char buffer[] = "....";
  Convert_QList2BinBuff(FromHex("00 FF"), buffer);
  EXPECT_EQ("\0\xFF.."s, std::string(buffer, 4));
}

TEST(ByteList, Dumps) {
  testing::internal::CaptureStdout();
  PrintBuffer("A\r\x1F", 3);
  PrintBufferID(" \xFF", 2, "id");
  PrintQList(FromHex("42 00"));
  EXPECT_EQ(
      "Buffer content: A:65|.:13|.:31|\nid Buffer content:  :32|\xFF:255|\n"
      "List size: 2\nContent: B:66|.:0|\n",
      testing::internal::GetCapturedStdout());
}

TEST(ByteList, ReplyClasses) {
  EXPECT_EQ(5, GetQListError({}));
  const std::map<char, int> classes = {{'T', 1}, {0x12, 2}, {'#', 3}, {'$', 3},
                                       {'N', 4}, {'B', 6},  {'C', 6}};
  for (int c = 0; c <= UCHAR_MAX; ++c) {
    const auto found = classes.find(static_cast<char>(c));
    const int expected = found == classes.end() ? 0 : found->second;
    EXPECT_EQ(expected, GetQListError({static_cast<char>(c), 'T'})) << c;
  }
}

}  // namespace

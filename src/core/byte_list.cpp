#include "core/byte_list.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned char kLastControlByte = 0x1F;

void PrintByte(char c) {
  const unsigned value = ByteOf(c);
  std::printf("%c:%u|", value <= kLastControlByte ? '.' : c, value);
}

void PrintBytes(const char* buffer, int length) {
  for (int i = 0; i < length; ++i) PrintByte(buffer[i]);
  std::printf("\n");
}

}  // namespace

long ATOL(const std::string& text) { return std::strtol(text.c_str(), nullptr, 10); }

std::string ITOA(int number) { return std::to_string(number); }

std::string BTOA(bool value) { return value ? "TRUE" : "FALSE"; }

bool ATOB(const std::string& text) { return text == "True" || text == "true" || text == "TRUE"; }

std::string Convert_CharBuff2String(const char* characters) { return characters; }

std::string Convert_QList2String(const BYTE_LIST& list) {
  std::string text;
  for (const char c : list) {
    if (c == '\0') break;
    text.push_back(c);
  }
  return text;
}

void Convert_QList2BinBuff(const BYTE_LIST& list, char* destination) {
  for (const char c : list) *destination++ = c;
}

BYTE_LIST Convert_BinBuff2QList(const char* buffer) {
  const char* const bytes = buffer + 1;
  return BYTE_LIST(bytes, bytes + ByteOf(buffer[0]));
}

BYTE_LIST Convert_CharBuff2QList(const char* characters) {
  return BYTE_LIST(characters, characters + std::strlen(characters));
}

BYTE_LIST Convert_String2QList(const std::string& text) {
  const char* const bytes = text.c_str();
  const std::size_t length = std::strlen(bytes);
  return BYTE_LIST(bytes, bytes + (length == 0 ? 1 : length));
}

unsigned char HexCharToByte(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<unsigned char>(digit - '0');
  if (digit >= 'A' && digit <= 'F') return static_cast<unsigned char>(digit - 'A' + 10);
  return 0;
}

unsigned char HexNum2Byte(char high, char low) {
  return static_cast<unsigned char>(HexCharToByte(high) * 16 + HexCharToByte(low));
}

unsigned char Convert_HexStr2Byte(const std::string& text) {
  if (text.size() < 2) return text.empty() ? 0 : HexNum2Byte('0', text[0]);
  return HexNum2Byte(text[0], text[1]);
}

std::string HexText(unsigned value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "%.*X", digits, value);
  return text;
}

void PrintBuffer(const char* buffer, int length) {
  std::printf("Buffer content: ");
  PrintBytes(buffer, length);
}

void PrintBufferID(const char* buffer, int length, const char* label) {
  std::printf("%s Buffer content: ", label);
  PrintBytes(buffer, length);
}

void PrintQList(const BYTE_LIST& list) {
  std::printf("List size: %zu\nContent: ", list.size());
  for (const char c : list) PrintByte(c);
  std::printf("\n");
}

int GetQListError(const BYTE_LIST& reply) {
  if (reply.empty()) return 5;
  switch (reply.front()) {
    case 0x54:
      return kReplyTimeout;
    case 0x12:
      return 2;
    case 0x23:
    case 0x24:
      return 3;
    case 0x4E:
      return 4;
    case 0x42:
    case 0x43:
      return 6;
    default:
      return kReplyGood;
  }
}

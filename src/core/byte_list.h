#ifndef TALP_CORE_BYTE_LIST_H_
#define TALP_CORE_BYTE_LIST_H_

#include <list>
#include <string>

// The unit of every message between threads, clients and the card bus. Its `char`s are raw bytes:
// read them as 0..255 (ByteOf) wherever they are compared, printed or used as an index.
using BYTE_LIST = std::list<char>;

// All functions here are re-entrant and may be called from any thread. They report no errors: text
// that is not a number counts as 0, and so does a character that is not a hexadecimal digit.

inline unsigned char ByteOf(char c) { return static_cast<unsigned char>(c); }

// The decimal number at the start of `text`, read as strtol(3) does (blanks, sign, saturation).
long ATOL(const std::string& text);

// Decimal form of `number`.
std::string ITOA(int number);

// "TRUE" or "FALSE".
std::string BTOA(bool value);

// True for exactly "True", "true" and "TRUE".
bool ATOB(const std::string& text);

// The characters up to the first zero byte.
std::string Convert_CharBuff2String(const char* characters);

// The bytes in order, cut at the first zero byte.
std::string Convert_QList2String(const BYTE_LIST& list);

// Copies all bytes to `destination`, which must have room for list.size() of them; adds nothing.
void Convert_QList2BinBuff(const BYTE_LIST& list, char* destination);

// `buffer` is a count byte (0..255) and that many bytes; the list gets the bytes, not the count.
BYTE_LIST Convert_BinBuff2QList(const char* buffer);

// The bytes up to the first zero byte; an empty string gives an empty list.
BYTE_LIST Convert_CharBuff2QList(const char* characters);

// The bytes of the text up to its first zero byte. The first byte is always taken, so the empty
// text gives a list of one zero byte, unlike Convert_CharBuff2QList.
BYTE_LIST Convert_String2QList(const std::string& text);

// '0'..'9' and 'A'..'F' give 0..15. Anything else gives 0, lower-case digits too.
unsigned char HexCharToByte(char digit);

// high * 16 + low, each by HexCharToByte.
unsigned char HexNum2Byte(char high, char low);

// The first two characters as high and low digit; a single character counts as the low digit, an
// empty text as 0.
unsigned char Convert_HexStr2Byte(const std::string& text);

// `value` in upper-case hexadecimal digits, with leading zeros up to so many `digits`.
std::string HexText(unsigned value, int digits);

// Development aids: dump bytes to standard output as "A:65|.:13|" and a line end.
void PrintBuffer(const char* buffer, int length);
void PrintBufferID(const char* buffer, int length, const char* label);
void PrintQList(const BYTE_LIST& list);

// The two classes of card bus replies that callers distinguish; the others are error codes.
constexpr int kReplyGood = 0;
constexpr int kReplyTimeout = 1;

// Classifies a card bus reply by its first byte: 0 good, 1 timeout, 2..4 and 6 error codes of the
// bus, 5 an empty reply.
int GetQListError(const BYTE_LIST& reply);

#endif  // TALP_CORE_BYTE_LIST_H_

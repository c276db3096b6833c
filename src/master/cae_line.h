#ifndef TALP_MASTER_CAE_LINE_H_
#define TALP_MASTER_CAE_LINE_H_

#include <cstddef>
#include <string>

// How console lines are matched and how their arguments are taken: by position, without further
// syntax checks. Missing characters are returned as an empty text, which counts as digit 0. Pure
// rules, any thread.

enum class LINE_MATCH {
  kWholeLine,        // the line is the key and the separator
  kKeyAndSeparator,  // the line contains the key and, anywhere, the separator
  kKey               // the line contains the key
};

bool LineMatches(const std::string& line, LINE_MATCH match, const std::string& key,
                 const std::string& separator);

// Up to `count` characters right after the first `mark`.
std::string TextAfter(const std::string& line, char mark, std::size_t count);

// The single character `distance` places before the first `mark`.
std::string CharBefore(const std::string& line, char mark, std::size_t distance);

// From just after the first '=' up to the line's first character that is one of `terminators`, or
// to the line's end if there is none. Empty if that character comes before the '='.
std::string NumberText(const std::string& line, const std::string& terminators);

// The value of the first character as a hexadecimal digit.
unsigned char DigitOf(const std::string& text);

// The value of the first two characters as hexadecimal digits.
unsigned char TwoDigitsOf(const std::string& text);

#endif  // TALP_MASTER_CAE_LINE_H_

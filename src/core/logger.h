#ifndef TALP_CORE_LOGGER_H_
#define TALP_CORE_LOGGER_H_

#include <string>

#include "thread/mutex.h"

// Captions and the level of every log call.
constexpr char kInfo[] = "INF";
constexpr char kError[] = "ERR";
constexpr int kLogLevel = 1;

// Appends time-stamped lines to one file. Every task holds its own copy; a copy writes to the same
// file but has its own lock, which serialises only its own callers. Lines stay whole because each
// is one write(2) in append mode.
class LOGGER {
 public:
  LOGGER() = default;
  LOGGER(const LOGGER& other) : level(other.level), fileName(other.fileName) {}
  LOGGER& operator=(const LOGGER& other);

  // Writes "%Y-%m-%d %H:%M:%S [caption] text". The file is opened and closed for every line, so it
  // may be rotated or removed at any time. Drops the line in silence if the file cannot be opened
  // or `lineLevel` is below the logger's level. Any thread.
  void LOG(const std::string& caption, const std::string& text, int lineLevel);

  // Set before the logger is shared or copied.
  int level = 0;
  std::string fileName;

 private:
  CMutexClass lock_;
};

#endif  // TALP_CORE_LOGGER_H_

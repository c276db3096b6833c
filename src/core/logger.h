#ifndef TALP_CORE_LOGGER_H_
#define TALP_CORE_LOGGER_H_

#include <string>

#include "thread/mutex.h"

// Captions and the level of every log call.
constexpr char kInfo[] = "INF";
constexpr char kError[] = "ERR";
constexpr int kLogLevel = 1;

// Appends time-stamped lines to one file. Every task holds its own copy. A copy writes to the same
// file, but its lock is its own and serialises only its own callers. Lines of different copies do
// not mix, because each line is one write(2) in append mode.
class LOGGER {
 public:
  LOGGER() = default;
  LOGGER(const LOGGER& other) : level(other.level), fileName(other.fileName) {}
  LOGGER& operator=(const LOGGER& other);

  // Writes "%Y-%m-%d %H:%M:%S [caption] text". The file is opened and closed for every line, so it
  // may be rotated or removed at any time. The line is dropped without a report if the file cannot
  // be opened, if it is a pipe or a socket, or if `lineLevel` is below the logger's level. Any
  // thread.
  void LOG(const std::string& caption, const std::string& text, int lineLevel);

  // Set before the logger is shared or copied.
  int level = 0;
  std::string fileName;

 private:
  CMutexClass lock_;
};

#endif  // TALP_CORE_LOGGER_H_

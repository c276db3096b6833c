#include "core/logger.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

namespace {

std::string LocalTime() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char text[256];
  const size_t length = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return std::string(text, length);
}

// A full disk or a vanished file system loses the line and nothing else.
void WriteAll(int file, const std::string& line) {
  size_t written = 0;
  while (written < line.size()) {
    const ssize_t count = write(file, line.data() + written, line.size() - written);
    if (count <= 0) return;
    written += static_cast<size_t>(count);
  }
}

}  // namespace

LOGGER& LOGGER::operator=(const LOGGER& other) {
  level = other.level;
  fileName = other.fileName;
  return *this;
}

void LOGGER::LOG(const std::string& caption, const std::string& text, int lineLevel) {
  const std::string line = LocalTime() + " [" + caption + "] " + text + "\n";
  MUTEX_GUARD guard(&lock_);
  // Opened before the level is looked at: the file appears even if all lines are filtered out.
  const int file = open(fileName.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (file < 0) return;
  if (lineLevel >= level) WriteAll(file, line);
  close(file);
}

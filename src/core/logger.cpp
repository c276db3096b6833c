#include "core/logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <mutex>

#include "core/file_descriptor.h"

namespace {

std::string LocalTime() {
  static std::mutex zoneLock;  // the library has one, too, but the thread sanitizer does not see it
  const time_t now = time(nullptr);
  tm local{};
  {
    const std::lock_guard<std::mutex> guard(zoneLock);
    tzset();  // localtime_r(3) would keep the zone of the first line when /etc/localtime changes
  }
  localtime_r(&now, &local);
  char text[256];
  const size_t length = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return std::string(text, length);
}

// A failed write (full disk, stopped terminal, vanished file system) loses the rest of the line and
// nothing else.
void WriteAll(const FILE_DESCRIPTOR& file, const std::string& line) {
  size_t written = 0;
  while (written < line.size()) {
    const ssize_t count = write(file.Number(), line.data() + written, line.size() - written);
    if (count <= 0) return;
    written += static_cast<size_t>(count);
  }
}

// Opens without blocking: a FIFO without a reader or a stopped terminal would block every thread
// that logs. A pipe or a socket is not written to: after its reader has left, SIGPIPE would end the
// process. A terminal must not become the controlling one, or its hang-up would end the daemon.
FILE_DESCRIPTOR OpenLog(const std::string& path) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  FILE_DESCRIPTOR file(open(path.c_str(), kFlags, 0666));
  struct stat about {};
  const bool known = file.IsOpen() && fstat(file.Number(), &about) == 0;
  if (!known || S_ISFIFO(about.st_mode) || S_ISSOCK(about.st_mode)) file.Close();
  return file;
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
  // Opened before the level is compared, so that the file exists even if no line is written.
  const FILE_DESCRIPTOR file = OpenLog(fileName);
  if (file.IsOpen() && lineLevel >= level) WriteAll(file, line);
}

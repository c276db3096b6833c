#include "mqtt/log_watch.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <system_error>
#include <utility>

#include "core/log_texts.h"

namespace mqtt {

namespace {

constexpr std::size_t kTextAt = 26;        // behind "2000-01-01 00:00:00 [INF] "
constexpr std::size_t kLongestLine = 512;  // of a longer one the rest says nothing
constexpr off_t kOldest = 1048576;         // bytes before the end that are read at first
constexpr int kReadsAtOnce = 16;
constexpr milliseconds kLookTime(250);
// talp pauses for a second before it looks for the cards, which takes less than another one. Until
// then it drops commands, or forgets the outputs that they have set.
constexpr seconds kDiscoveryTime(3);
// An adapter that answers with an error code is used, too, which is not logged. One that does not
// answer is given up, which is, long before this time is over.
constexpr seconds kTryingTime(10);

constexpr BUS_NEWS kMeanings[] = {
    {kLogFound, BUS::kOnline, kDiscoveryTime}, {kLogTrying, BUS::kOnline, kTryingTime},
    {kLogTimeout, BUS::kOffline, {}},          {kLogNoAdapter, BUS::kOffline, {}},
    {kLogCannotOpen, BUS::kOffline, {}},       {kLogStarted, BUS::kOffline, {}},
    {kLogStopped, BUS::kOffline, {}},
};

}  // namespace

const BUS_NEWS* BusNewsOf(const std::string& line) {
  for (const BUS_NEWS& news : kMeanings) {
    if (line.size() > kTextAt && line.rfind(news.text, kTextAt) == kTextAt) return &news;
  }
  return nullptr;
}

LOG_WATCH::LOG_WATCH(std::string path, const std::string& reason) : path_(std::move(path)) {
  if (path_.empty()) {
    Report(reason);
    return;
  }
  // A log that was rotated lately may have nothing of the bus yet. The end of the one before has.
  if (Open(path_ + ".1")) ReadAll();
  line_.clear();
  file_.Close();
  Open(path_);
}

void LOG_WATCH::Run() {
  if (path_.empty()) return;
  ReadAll();
  if (CLOCK::now() < lookedAt_ + kLookTime) return;
  lookedAt_ = CLOCK::now();
  if (file_.IsOpen() && !IsReplaced()) return;
  ReadAll();
  line_.clear();
  const bool isFirst = !file_.IsOpen();
  if (Open(path_)) {
    reported_.clear();
    // What was written since is all new.
    if (!isFirst) lseek(file_.Number(), 0, SEEK_SET);
  } else if (errno != ENOENT || isFirst) {
    // Without a file talp has not written a line since the last one that was read.
    bus_ = BUS::kUnknown;
    Report(path_ + ": " + std::generic_category().message(errno));
  }
}

BUS LOG_WATCH::State() const {
  return bus_ == BUS::kOnline && CLOCK::now() < onlineFrom_ ? BUS::kOffline : bus_;
}

void LOG_WATCH::Report(const std::string& trouble) {
  if (trouble == std::exchange(reported_, trouble)) return;
  std::cerr << "bus: not watched, so the status is that of the IO port: " + trouble + "\n";
}

// At its end, or so far before it that the last line of the bus is likely to be read.
bool LOG_WATCH::Open(const std::string& path) {
  FILE_DESCRIPTOR file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat about {};
  if (!file.IsOpen() || fstat(file.Number(), &about) != 0) return false;
  if (!S_ISREG(about.st_mode)) {
    errno = EINVAL;
    return false;
  }
  lseek(file.Number(), std::max<off_t>(0, about.st_size - kOldest), SEEK_SET);
  file_ = std::move(file);
  return true;
}

void LOG_WATCH::ReadAll() {
  char bytes[65536];
  for (int i = 0; i < kReadsAtOnce && file_.IsOpen(); ++i) {
    const ssize_t count = read(file_.Number(), bytes, sizeof bytes);
    if (count <= 0) return;
    Take(bytes, static_cast<std::size_t>(count));
  }
}

void LOG_WATCH::Take(const char* bytes, std::size_t count) {
  for (const char* const end = bytes + count; bytes != end;) {
    const char* const lineEnd = std::find(bytes, end, '\n');
    const auto room = static_cast<std::ptrdiff_t>(kLongestLine - line_.size());
    line_.append(bytes, bytes + std::min(lineEnd - bytes, room));
    if (lineEnd == end) return;
    bytes = lineEnd + 1;
    const BUS_NEWS* const news = BusNewsOf(line_);
    line_.clear();
    if (news == nullptr) continue;
    bus_ = news->bus;
    onlineFrom_ = CLOCK::now() + news->delay;
  }
}

// Another file at the path, or one that was emptied. A path without a file keeps the old one, whose
// writer may still add to it.
bool LOG_WATCH::IsReplaced() {
  struct stat old {};
  struct stat now {};
  if (fstat(file_.Number(), &old) != 0 || stat(path_.c_str(), &now) != 0) return errno != ENOENT;
  const bool isSame = old.st_ino == now.st_ino && old.st_dev == now.st_dev;
  return !isSame || now.st_size < lseek(file_.Number(), 0, SEEK_CUR);
}

}  // namespace mqtt

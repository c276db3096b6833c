#include "cardsim/line_output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr size_t kMostPending = size_t{1024} * 1024;
constexpr int kLastWaitMs = 1000;

// A terminal or pipe is opened anew, because O_NONBLOCK on the inherited open file would reach the
// shell that shares it. A file never makes a writer wait, and a socket cannot be opened.
int OpenOutput() {
  if (lseek(STDOUT_FILENO, 0, SEEK_CUR) >= 0) return STDOUT_FILENO;
  const int opened = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (opened >= 0) return opened;
  fcntl(STDOUT_FILENO, F_SETFL, fcntl(STDOUT_FILENO, F_GETFL) | O_NONBLOCK);
  return STDOUT_FILENO;
}

}  // namespace

LINE_OUTPUT::LINE_OUTPUT() : descriptor_(OpenOutput()) {}

LINE_OUTPUT::~LINE_OUTPUT() {
  pollfd wait = {descriptor_, POLLOUT, 0};
  while (!pending_.empty() && poll(&wait, 1, kLastWaitMs) > 0) Flush();
  close(descriptor_);
}

void LINE_OUTPUT::Print(const std::string& line) {
  if (pending_.size() + line.size() > kMostPending) {
    ++lost_;
    return;
  }
  if (lost_ > 0) pending_ += "lost " + std::to_string(lost_) + " lines\n";
  lost_ = 0;
  pending_ += line + '\n';
}

void LINE_OUTPUT::Flush() {
  if (pending_.empty()) return;
  const ssize_t written = write(descriptor_, pending_.data(), pending_.size());
  if (written > 0) {
    pending_.erase(0, static_cast<size_t>(written));
  } else if (errno != EAGAIN && errno != EINTR) {
    pending_.clear();
  }
}

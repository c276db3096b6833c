#include "cardsim/pty_line.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <system_error>

namespace cardsim {

namespace {

std::string Failed(const std::string& what) {
  return what + ": " + std::generic_category().message(errno);
}

void CloseDescriptor(int* descriptor) {
  if (*descriptor >= 0) close(*descriptor);
  *descriptor = -1;
}

std::string LinkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t size = readlink(path.c_str(), target.data(), target.size());
  return size < 0 ? std::string() : std::string(target.data(), static_cast<size_t>(size));
}

}  // namespace

std::string PTY_LINE::Open(const std::string& linkPath) {
  std::string why = OpenPty();
  if (why.empty() && !linkPath.empty()) why = Link(linkPath);
  if (!why.empty()) Close();
  return why;
}

void PTY_LINE::Close() {
  if (!linkPath_.empty() && LinkTarget(linkPath_) == slavePath_) unlink(linkPath_.c_str());
  linkPath_.clear();
  slavePath_.clear();
  CloseDescriptor(&slave_);
  CloseDescriptor(&master_);
}

ssize_t PTY_LINE::Read(unsigned char* bytes, size_t room) {
  const ssize_t count = read(master_, bytes, room);
  if (count >= 0) return count;
  return errno == EAGAIN || errno == EINTR ? 0 : -1;
}

void PTY_LINE::Write(const unsigned char* bytes, size_t count) {
  if (!IsOpen()) return;
  while (count > 0) {
    const ssize_t written = write(master_, bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    bytes += written;
    count -= static_cast<size_t>(written);
  }
}

std::string PTY_LINE::OpenPty() {
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (master_ < 0) return Failed("no pty");
  std::array<char, PATH_MAX> name{};
  if (grantpt(master_) != 0 || unlockpt(master_) != 0 ||
      ptsname_r(master_, name.data(), name.size()) != 0) {
    return Failed("the pty cannot be unlocked");
  }
  slavePath_ = name.data();
  slave_ = open(slavePath_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (slave_ < 0) return Failed(slavePath_);
  // Raw from the start, or a byte sent before the other side has set its line would be echoed.
  termios settings{};
  if (tcgetattr(slave_, &settings) != 0) return Failed(slavePath_);
  cfmakeraw(&settings);
  if (tcsetattr(slave_, TCSANOW, &settings) != 0) return Failed(slavePath_);
  return {};
}

std::string PTY_LINE::Link(const std::string& linkPath) {
  struct stat present {};
  if (lstat(linkPath.c_str(), &present) == 0 && !S_ISLNK(present.st_mode)) {
    return linkPath + ": exists and is no symbolic link";
  }
  // The link appears complete under its name, never half made. Its temporary name is a hidden
  // one, so that a listing of serial adapters does not find it.
  const size_t nameAt = linkPath.rfind('/') + 1;  // 0 without a slash: the current directory
  const std::string temporary =
      linkPath.substr(0, nameAt) + ".talp-cardsim-" + std::to_string(getpid());
  if (symlink(slavePath_.c_str(), temporary.c_str()) != 0) return Failed(linkPath);
  if (rename(temporary.c_str(), linkPath.c_str()) != 0) {
    std::string why = Failed(linkPath);
    unlink(temporary.c_str());
    return why;
  }
  linkPath_ = linkPath;
  return {};
}

}  // namespace cardsim

#include "cardsim/adapter.h"

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <system_error>

namespace {

// Longer than a frame ever takes to arrive, shorter than a program takes to start again.
constexpr std::chrono::milliseconds kFramePause{200};

}  // namespace

ADAPTER::ADAPTER(CARD_BUS* bus, FAULT_PLAN* faults, LINE_OUTPUT* out, bool showFrames)
    : bus_(bus), faults_(faults), out_(out), showFrames_(showFrames) {}

std::string ADAPTER::PlugIn(const std::string& linkPath) {
  if (master_ >= 0) return "the adapter is plugged in";
  const std::string path = linkPath.empty() ? linkPath_ : linkPath;
  std::string failed;
  if (!OpenPty()) {
    failed = "pty: " + std::generic_category().message(errno);
  } else if (!path.empty() && !MakeLink(path)) {
    failed = path + ": " + std::generic_category().message(errno);
  } else {
    linkPath_ = path;
    out_->Print("ready " + slavePath_ + (path.empty() ? "" : " link " + path));
  }
  if (!failed.empty()) Close();
  return failed;
}

std::string ADAPTER::PullOut() {
  if (master_ < 0) return "the adapter is pulled out already";
  Close();
  received_.clear();
  latePieces_.clear();
  out_->Print("hung up");
  return {};
}

// A frame is one length byte and that many bytes; nothing marks where one begins. Only a pause
// tells that the rest of an incomplete one does not come any more.
void ADAPTER::Receive() {
  std::array<unsigned char, 4096> bytes;
  const ssize_t count = read(master_, bytes.data(), bytes.size());
  if (count <= 0) return;
  const CLOCK::time_point now = CLOCK::now();
  if (!received_.empty() && now > lastReceived_ + kFramePause) {
    out_->Print("dropped " + HexText(received_));
    received_.clear();
  }
  lastReceived_ = now;
  received_.insert(received_.end(), bytes.data(), bytes.data() + count);
  while (!received_.empty() && received_.size() > received_[0]) {
    const auto end = received_.begin() + 1 + received_[0];
    const BYTES frame(received_.begin(), end);
    received_.erase(received_.begin(), end);
    TakeFrame(frame);
  }
}

int ADAPTER::SendLatePieces() {
  const CLOCK::time_point now = CLOCK::now();
  while (!latePieces_.empty() && latePieces_.begin()->first <= now) {
    Send(latePieces_.begin()->second);
    latePieces_.erase(latePieces_.begin());
  }
  if (latePieces_.empty()) return -1;
  const auto pause = latePieces_.begin()->first - now;
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(pause).count());
}

bool ADAPTER::OpenPty() {
  std::array<char, PATH_MAX> name{};
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) return false;
  if (ptsname_r(master_, name.data(), name.size()) != 0) return false;
  slavePath_ = name.data();
  slave_ = open(slavePath_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  // Raw from the start, or a byte sent before the other side has set its line would be echoed.
  termios settings{};
  if (slave_ < 0 || tcgetattr(slave_, &settings) != 0) return false;
  cfmakeraw(&settings);
  return tcsetattr(slave_, TCSANOW, &settings) == 0;
}

bool ADAPTER::MakeLink(const std::string& path) {
  std::error_code noLink;
  if (std::filesystem::is_symlink(path, noLink)) unlink(path.c_str());
  return symlink(slavePath_.c_str(), path.c_str()) == 0;
}

// The link may have become somebody else's.
void ADAPTER::Close() {
  std::error_code noLink;
  if (master_ >= 0 && std::filesystem::read_symlink(linkPath_, noLink) == slavePath_) {
    unlink(linkPath_.c_str());
  }
  if (slave_ >= 0) close(slave_);
  if (master_ >= 0) close(master_);
  slave_ = master_ = -1;
}

void ADAPTER::TakeFrame(const BYTES& frame) {
  if (showFrames_) out_->Print("rx " + HexText(frame));
  const BYTES request(frame.begin() + 1, frame.end());
  const std::optional<BYTES> reply = bus_->Answer(request);
  if (!reply) return;
  for (const PIECE& piece : faults_->Corrupt(request, *reply)) {
    if (piece.delay.count() == 0) {
      Send(piece.bytes);
    } else {
      latePieces_.emplace(CLOCK::now() + piece.delay, piece.bytes);
    }
  }
}

// What does not fit into the pty is lost, as on a wire that nobody reads.
void ADAPTER::Send(const BYTES& bytes) {
  [[maybe_unused]] const ssize_t written = write(master_, bytes.data(), bytes.size());
  if (showFrames_) out_->Print("tx " + HexText(bytes));
}

#include "cardsim/simulator.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

namespace cardsim {

namespace {

// Longer than a frame ever takes to arrive, shorter than a program takes to start again.
constexpr std::chrono::milliseconds kFramePause{200};
constexpr size_t kLongestCommand = 1000;

timespec TimeSpec(std::chrono::nanoseconds time) {
  time = std::max(time, std::chrono::nanoseconds::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  timespec result{};
  result.tv_sec = static_cast<time_t>(seconds.count());
  result.tv_nsec = static_cast<long>((time - seconds).count());
  return result;
}

}  // namespace

SIMULATOR::SIMULATOR(const OPTIONS& options)
    : bus_(options.versionText),
      console_(&bus_, &faults_, &switches_,
               {[this](LINES* lines) { return HangUp(lines); },
                [this](const std::string& linkPath, LINES* lines) {
                  return ComeBack(linkPath, lines);
                }}),
      lastLink_(options.linkPath) {
  for (size_t i = 0; i < CARD_BUS::kSlots; ++i) PlugIn(bus_.Slot(i), options.cards[i]);
  switches_.silent = options.silent;
  switches_.frames = options.frames;
}

std::string SIMULATOR::Start() {
  std::string why = OpenLine(lastLink_, &lines_);
  output_.Print(&lines_);
  return why;
}

void SIMULATOR::Run(const sigset_t& waitMask, const volatile sig_atomic_t* stop) {
  while (!switches_.quit && *stop == 0) {
    std::array<pollfd, 2> wait = {pollfd{line_.Descriptor(), POLLIN, 0},
                                  pollfd{inputOpen_ ? STDIN_FILENO : -1, POLLIN, 0}};
    const std::optional<CLOCK::time_point> deadline = NextDeadline();
    const timespec pause = TimeSpec(deadline.value_or(CLOCK::now()) - CLOCK::now());
    if (ppoll(wait.data(), wait.size(), deadline ? &pause : nullptr, &waitMask) < 0) continue;
    if (wait[0].revents != 0) ReadBus();
    SendDue();
    DropStalePartial();
    if (wait[1].revents != 0) ReadCommands();
    // After everything else: the bus waits for its answers, a reader of lines does not.
    output_.Print(&lines_);
  }
}

std::string SIMULATOR::HangUp(LINES* lines) {
  if (!line_.IsOpen()) return "the line is hung up already";
  line_.Close();
  assembler_.Drop();
  later_.clear();
  lines->push_back("hung up");
  return {};
}

std::string SIMULATOR::ComeBack(const std::string& linkPath, LINES* lines) {
  if (line_.IsOpen()) return "the line is not hung up";
  return OpenLine(linkPath.empty() ? lastLink_ : linkPath, lines);
}

std::string SIMULATOR::OpenLine(const std::string& linkPath, LINES* lines) {
  std::string why = line_.Open(linkPath);
  if (!why.empty()) return why;
  lastLink_ = linkPath;
  lines->push_back("ready " + line_.SlavePath() + (linkPath.empty() ? "" : " link " + linkPath));
  return {};
}

void SIMULATOR::ReadBus() {
  std::array<unsigned char, 4096> bytes;
  const ssize_t count = line_.Read(bytes.data(), bytes.size());
  if (count < 0) {
    lines_.push_back("error: the pty has failed");
    HangUp(&lines_);
    return;
  }
  lastByte_ = CLOCK::now();
  assembler_.Append(bytes.data(), static_cast<size_t>(count));
  BYTES payload;
  while (assembler_.Next(&payload)) TakeFrame(payload);
}

void SIMULATOR::TakeFrame(const BYTES& payload) {
  if (switches_.frames) {
    BYTES frame = payload;
    frame.insert(frame.begin(), static_cast<unsigned char>(payload.size()));
    lines_.push_back("rx " + HexText(frame));
  }
  if (switches_.silent) return;
  const std::optional<ANSWER> answer = bus_.Answer(payload, &lines_);
  if (!answer) return;
  for (PIECE& piece : faults_.Spoil(*answer, &lines_)) {
    if (piece.delayMs == 0) {
      Send(piece.bytes);
      continue;
    }
    const auto due = CLOCK::now() + std::chrono::milliseconds(piece.delayMs);
    later_.push_back({due, std::move(piece.bytes)});
  }
}

void SIMULATOR::Send(const BYTES& bytes) {
  line_.Write(bytes.data(), bytes.size());
  if (switches_.frames) lines_.push_back("tx " + HexText(bytes));
}

void SIMULATOR::SendDue() {
  if (later_.empty()) return;
  const auto byDue = [](const TIMED_PIECE& a, const TIMED_PIECE& b) { return a.due < b.due; };
  std::stable_sort(later_.begin(), later_.end(), byDue);
  const auto now = CLOCK::now();
  auto piece = later_.begin();
  for (; piece != later_.end() && piece->due <= now; ++piece) Send(piece->bytes);
  later_.erase(later_.begin(), piece);
}

void SIMULATOR::DropStalePartial() {
  if (assembler_.Partial().empty() || CLOCK::now() < lastByte_ + kFramePause) return;
  lines_.push_back("dropped " + HexText(assembler_.Partial()));
  assembler_.Drop();
}

// The end of a terminal's input (Ctrl-D) ends the program; the end of a pipe or of /dev/null does
// not, or a bus could not be left running in the background.
void SIMULATOR::ReadCommands() {
  std::array<char, 4096> bytes;
  const ssize_t count = read(STDIN_FILENO, bytes.data(), bytes.size());
  if (count > 0) return TakeCommandBytes(bytes.data(), static_cast<size_t>(count));
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  inputOpen_ = false;
  TakeCommandBytes("\n", 1);  // a last line without a line end is a line all the same
  if (count == 0 && isatty(STDIN_FILENO) == 1) switches_.quit = true;
}

void SIMULATOR::TakeCommandBytes(const char* bytes, size_t count) {
  for (const char* end = bytes + count; bytes != end && !switches_.quit; ++bytes) {
    if (*bytes != '\n') {
      overlongLine_ = overlongLine_ || command_.size() >= kLongestCommand;
      if (!overlongLine_) command_ += *bytes;
      continue;
    }
    if (overlongLine_) {
      lines_.push_back("error: the line is too long");
    } else {
      console_.Run(command_, &lines_);
    }
    overlongLine_ = false;
    command_.clear();
  }
}

std::optional<SIMULATOR::CLOCK::time_point> SIMULATOR::NextDeadline() const {
  std::optional<CLOCK::time_point> next;
  if (!assembler_.Partial().empty()) next = lastByte_ + kFramePause;
  for (const TIMED_PIECE& piece : later_) next = std::min(next.value_or(piece.due), piece.due);
  return next;
}

}  // namespace cardsim

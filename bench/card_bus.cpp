#include "card_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <stdexcept>

#include "clock.h"
#include "priority.h"

namespace bench {

namespace {

constexpr unsigned char kHandshake = '@';
constexpr unsigned char kDiscovery = '0';
constexpr unsigned char kSetOutputs = 0x10;
constexpr unsigned char kPoll = 0x20;

}  // namespace

CARD_BUS::CARD_BUS(const KINDS& kinds) : kinds_(kinds) {
  Open();
  thread_ = std::thread([this] { Serve(); });
}

CARD_BUS::~CARD_BUS() {
  stopping_ = true;
  // An empty frame from the other side wakes the thread.
  const unsigned char empty = 0;
  static_cast<void>(!write(slave_, &empty, 1));
  thread_.join();
  close(slave_);
  close(master_);
  close(outputEvent_);
}

void CARD_BUS::Open() {
  outputEvent_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  char name[PATH_MAX];
  if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
      ptsname_r(master_, name, sizeof name) != 0) {
    throw std::runtime_error("no pty for the card bus");
  }
  device_ = name;
  slave_ = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios settings{};
  if (slave_ < 0 || tcgetattr(slave_, &settings) != 0) {
    throw std::runtime_error("cannot open " + device_);
  }
  cfmakeraw(&settings);
  tcsetattr(slave_, TCSANOW, &settings);
}

void CARD_BUS::Serve() {
  RaisePriority();
  BYTES received;
  unsigned char bytes[512];
  while (!stopping_) {
    const ssize_t count = read(master_, bytes, sizeof bytes);
    if (count <= 0) return;
    received.insert(received.end(), bytes, bytes + count);
    ServeFrames(&received);
  }
}

void CARD_BUS::ServeFrames(BYTES* received) {
  while (!received->empty() && received->size() > received->front()) {
    const auto end = received->begin() + 1 + received->front();
    const BYTES request(received->begin() + 1, end);
    received->erase(received->begin(), end);
    if (!request.empty()) Send(Answer(request));
  }
}

CARD_BUS::BYTES CARD_BUS::Answer(const BYTES& request) {
  const std::size_t address = request.size() > 1 ? request[1] % kAddresses : 0;
  switch (request[0]) {
    case kHandshake:
      return {'@', '1', '.', '0', '0'};
    case kDiscovery:
      return DiscoveryAnswer();
    case kPoll:
      return AnswerPoll(address);
    case kSetOutputs: {
      const std::uint64_t one = 1;
      outputAt_ = Now();
      static_cast<void>(!write(outputEvent_, &one, sizeof one));
      break;
    }
    default:
      break;
  }
  return {'A', static_cast<unsigned char>(address)};
}

CARD_BUS::BYTES CARD_BUS::DiscoveryAnswer() const {
  BYTES answer(1 + kinds_.size(), '1');
  std::copy(kinds_.begin(), kinds_.end(), answer.begin() + 1);
  return answer;
}

CARD_BUS::BYTES CARD_BUS::AnswerPoll(std::size_t address) {
  const unsigned char state = inputs_[address];
  if (state != reported_[address]) {
    reported_[address] = state;
    reportedAt_[address] = Now();
  }
  return {'!', static_cast<unsigned char>(address), state, 0};
}

void CARD_BUS::Send(const BYTES& payload) {
  BYTES frame(1 + payload.size());
  frame[0] = static_cast<unsigned char>(payload.size());
  std::copy(payload.begin(), payload.end(), frame.begin() + 1);
  static_cast<void>(!write(master_, frame.data(), frame.size()));
  exchanges_.fetch_add(1, std::memory_order_relaxed);
}

std::int64_t CARD_BUS::WaitForOutput(int timeout) {
  pollfd entry{outputEvent_, POLLIN, 0};
  std::uint64_t count = 0;
  if (poll(&entry, 1, timeout) <= 0) return 0;
  static_cast<void>(!read(outputEvent_, &count, sizeof count));
  return outputAt_;
}

}  // namespace bench

#include "card_bus.h"

#include <limits.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace bench {

namespace {

constexpr unsigned char kDigitalOutput = 3;
constexpr unsigned char kDigitalInput = 4;

constexpr unsigned char kHandshake = '@';
constexpr unsigned char kDiscovery = '0';
constexpr unsigned char kSetOutputs = 0x10;
constexpr unsigned char kPoll = 0x20;

}  // namespace

CARD_BUS::CARD_BUS(int inputs) {
  std::fill_n(kinds_.begin(), inputs, kDigitalInput);
  if (inputs > 0) kinds_[kOutputCard] = kDigitalOutput;
  char name[PATH_MAX];
  termios raw{};
  cfmakeraw(&raw);
  if (openpty(&master_, &slave_, name, &raw, nullptr) != 0) {
    throw std::runtime_error("no pty for the card bus");
  }
  device_ = name;
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
}

void CARD_BUS::Flow(int rate, int count) {
  nextChange_ = Now();
  changeInterval_ = kSecond / rate;
  changesLeft_ = count;
}

void CARD_BUS::Serve() {
  RaisePriority();
  BYTES received;
  unsigned char bytes[512];
  while (!stopping_) {
    const ssize_t count = read(master_, bytes, sizeof bytes);
    if (count <= 0) return;
    received.insert(received.end(), bytes, bytes + count);
    while (!received.empty() && received.size() > received.front()) {
      const auto end = received.begin() + 1 + received.front();
      const BYTES request(received.begin() + 1, end);
      received.erase(received.begin(), end);
      if (!request.empty()) Send(Answer(request));
    }
  }
}

CARD_BUS::BYTES CARD_BUS::Answer(const BYTES& request) {
  const unsigned char address = request.size() > 1 ? request[1] % kAddresses : 0;
  BYTES discovery = {'1'};
  switch (request[0]) {
    case kHandshake:
      return {'@', '1', '.', '0', '0'};
    case kDiscovery:
      discovery.insert(discovery.end(), kinds_.begin(), kinds_.end());
      return discovery;
    case kPoll:
      if (changesLeft_ > 0 && Now() >= nextChange_) {
        ++inputs_[address];
        nextChange_ += changeInterval_;
        --changesLeft_;
      }
      return {'!', address, inputs_[address], 0};
    case kSetOutputs:
      outputs_.Note();
      break;
    default:
      break;
  }
  return {'A', address};
}

void CARD_BUS::Send(const BYTES& payload) {
  BYTES frame = {static_cast<unsigned char>(payload.size())};
  frame.insert(frame.end(), payload.begin(), payload.end());
  static_cast<void>(!write(master_, frame.data(), frame.size()));
  exchanges_.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace bench

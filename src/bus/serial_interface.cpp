#include "bus/serial_interface.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "bus/frame.h"
#include "bus/serial_port.h"
#include "core/sleepsec.h"
#include "core/speed.h"
#include "thread/sleep.h"

namespace {

constexpr std::size_t kReadSize = 255;
constexpr std::size_t kDispatchSize = 100;  // a longer reply is cut; no rule looks that far
constexpr int kRetryPause = 2;              // seconds
constexpr int kDiscoveryPause = 1;          // seconds
constexpr unsigned kSettlePause = 2000;     // 200 microseconds before the handshake, no more

REPLY DispatchedPart(const BYTE_LIST& reply) {
  REPLY part(std::min(reply.size(), kDispatchSize));
  std::transform(reply.begin(), std::next(reply.begin(), static_cast<long>(part.size())),
                 part.begin(), ByteOf);
  return part;
}

}  // namespace

SERIAL_INTERFACE::SERIAL_INTERFACE(const std::string& device, const LOGGER& logger,
                                   TLQUEUE* cardInput, CARD_TABLE* cards, bool pollEnable,
                                   bool autoDiscover)
    : globalPolling(pollEnable),
      threadDelay(kDefaultDelay),
      logger_(logger),
      device_(device),
      cardInput_(cardInput),
      cards_(cards),
      autoDiscover_(autoDiscover) {
  SetThreadType(IntervalDriven, 1);
}

SERIAL_INTERFACE::~SERIAL_INTERFACE() {
  Stop();
  CloseTty();
}

bool SERIAL_INTERFACE::OnTask() {
  PauseMicroseconds(threadDelay);
  if (linkState_ == kDisconnected) Connect();
  if (linkState_ == kLinked) {
    ServeQueues();
    // Also after a timeout, so that polling goes on where it was once the link is back.
    if (globalPolling) QueuePolls();
  }
  return true;
}

void SERIAL_INTERFACE::Connect() {
  if (!Init()) {
    linkState_ = kDisconnected;
    sleepsec(kRetryPause);
  } else if (autoDiscover_) {
    busQueues[kBusCommandQueue].ToQueue(DiscoveryRequest());
    sleepsec(kDiscoveryPause);
  }
}

bool SERIAL_INTERFACE::Init() {
  return searchMode_ == kStoredDevice ? InitStoredDevice() : InitFirstAnsweringDevice();
}

bool SERIAL_INTERFACE::InitStoredDevice() {
  tty_ = OpenSerialDevice(device_);
  if (tty_ < 0) {
    logger_.LOG(kError, "unable to open " + device_ + " for hardware communication", kLogLevel);
    return false;
  }
  return TryOpenDevice();
}

bool SERIAL_INTERFACE::InitFirstAnsweringDevice() {
  const std::list<std::string> devices = GetUSBDevices();
  if (devices.empty()) logger_.LOG(kError, "ttyUSB devices couldn't be found", kLogLevel);
  for (const std::string& device : devices) {
    device_ = device;
    tty_ = OpenSerialDevice(device_);
    if (tty_ < 0) {
      // Two blanks, unlike the message for a stored device, so that the log tells the two apart.
      logger_.LOG(kError, "unable to  open " + device_ + " for hardware communication", kLogLevel);
    } else if (TryOpenDevice()) {
      return true;
    }
  }
  return false;
}

bool SERIAL_INTERFACE::TryOpenDevice() {
  linkState_ = kTrying;
  closeRequested_ = false;  // it was for a tty that is gone
  const bool answered = SetSerialParams() && HardwareCheck(device_);
  linkState_ = answered ? kLinked : kDisconnected;
  if (!answered) CloseTty();
  return answered;
}

bool SERIAL_INTERFACE::SetSerialParams() {
  const int error = ApplyLineSettings(tty_);
  if (error != 0) logger_.LOG(kError, "error " + ITOA(error) + " from tcsetattr", kLogLevel);
  return error == 0;
}

bool SERIAL_INTERFACE::HardwareCheck(const std::string& device) {
  logger_.LOG(kInfo, "try to catch hardware on " + device, kLogLevel);
  Sleep(kSettlePause);
  const BYTE_LIST reply = Comm2HW(HandshakeRequest());
  switch (GetQListError(reply)) {
    case kReplyGood:
      logger_.LOG(kInfo, "hardware found on " + device + " version: " + HandshakeVersion(reply),
                  kLogLevel);
      return true;
    case kReplyTimeout:
      logger_.LOG(kInfo, "comm timeout " + device, kLogLevel);
      return false;
    default:
      // Whatever answers with an error code is a card bus too, and is taken without a word.
      return true;
  }
}

BYTE_LIST SERIAL_INTERFACE::Comm2HW(const BYTE_LIST& request) {
  if (closeRequested_) {
    closeRequested_ = false;
    CloseTty();
  }
  char bytes[kReadSize];
  // Stale input is dropped. The result does not matter: the wait below finds out what is wrong.
  [[maybe_unused]] const ssize_t dropped = read(tty_, bytes, sizeof bytes);
  if (request.empty()) return EmptyRequestReply();
  const REQUEST_FRAME frame = BuildRequestFrame(request);
  if (write(tty_, frame.bytes.data(), frame.size) == -1) {
    logger_.LOG(kError, "unable to  write to " + device_, kLogLevel);
  }
  REPLY_WAIT wait(request);
  while (wait.Waiting()) wait.Attempt(bytes, read(tty_, bytes, sizeof bytes));
  return wait.Reply();
}

void SERIAL_INTERFACE::mf_SIGhandler(int signal) {
  logger_.LOG(kInfo, "signal " + ITOA(signal) + " on serial interface", kLogLevel);
  // Closed by the task itself: while the task may be using the descriptor, its number must not
  // become somebody else's.
  closeRequested_ = true;
}

// At most one frame of each queue a cycle, so that no queue holds up another.
void SERIAL_INTERFACE::ServeQueues() {
  for (TLQUEUE& queue : busQueues) {
    if (!queue.IsEmpty() && !Serve(&queue)) return;
  }
}

// False when the link is lost. The frame is gone then: nothing is sent twice.
bool SERIAL_INTERFACE::Serve(TLQUEUE* queue) {
  const BYTE_LIST reply = Comm2HW(queue->DeQueue());
  switch (GetQListError(reply)) {
    case kReplyGood:
      ApplyReply(reply);
      return true;
    case kReplyTimeout:
      logger_.LOG(kInfo, "comm timeout " + device_, kLogLevel);
      CloseTty();
      linkState_ = kDisconnected;
      return false;
    default:
      return true;
  }
}

void SERIAL_INTERFACE::QueuePolls() {
  MUTEX_GUARD guard(&cards_->lock);
  for (std::size_t address = 0; address < kAddressCount; ++address) {
    const PERIFCARD& card = cards_->cards[address];
    if (card.cardClass == kInputClass && card.pollEnabled == 1) {
      busQueues[address].ToQueue(card.pollFrame);
    }
  }
}

void SERIAL_INTERFACE::ApplyReply(const BYTE_LIST& reply) {
  const REPLY answer = DispatchedPart(reply);
  const char code = reply.front();
  const int address = AnswerAddress(answer);
  MUTEX_GUARD guard(&cards_->lock);
  if (code == kDiscoveryAnswer) {
    ApplyDiscoveryAnswer(answer, cards_->cards);
  } else if (address >= 0 && code == kDirectAnswer) {
    // The change flags stay as they are: the card's last changes are told once more, deliberately.
    ApplyDirectAnswer(answer, &cards_->cards[address]);
    WriteToQueue(address);
  } else if (address >= 0 && code == kInputAnswer) {
    if (ApplyInputAnswer(answer, &cards_->cards[address])) WriteToQueue(address);
  }
}

// The caller holds the card table's lock.
void SERIAL_INTERFACE::WriteToQueue(int address) {
  for (const std::string& line : ChangedInputLines(address, cards_->cards[address])) {
    cardInput_->ToQueue(Convert_String2QList(line));
  }
}

void SERIAL_INTERFACE::CloseTty() {
  if (tty_ >= 0) close(tty_);
  tty_ = -1;
}

#include "bus/serial_interface.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "bus/serial_port.h"
#include "core/log_texts.h"
#include "core/sleepsec.h"
#include "core/speed.h"
#include "thread/sleep.h"

namespace {

constexpr std::size_t kReadSize = 255;
constexpr std::size_t kDispatchSize = 100;  // longer replies are cut; no rule reads that far
constexpr int kRetryPause = 2;              // seconds
constexpr int kDiscoveryPause = 1;          // seconds
constexpr unsigned kSettlePause = 2000;     // 200 microseconds

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
  SetThreadType(ThreadType_t::IntervalDriven, 1);
}

SERIAL_INTERFACE::~SERIAL_INTERFACE() { Stop(); }

bool SERIAL_INTERFACE::OnTask() {
  PauseMicroseconds(threadDelay);
  if (linkState_ == LINK_STATE::kDisconnected) Connect();
  if (linkState_ == LINK_STATE::kConnected) {
    ServeQueues();
    // Also after a timeout, so that polling continues as soon as the link is back.
    if (globalPolling) QueuePolls();
  }
  return true;
}

void SERIAL_INTERFACE::Connect() {
  if (!Init()) {
    linkState_ = LINK_STATE::kDisconnected;
    sleepsec(kRetryPause);
  } else if (autoDiscover_) {
    busQueues[kBusCommandQueue].ToQueue(DiscoveryRequest());
    sleepsec(kDiscoveryPause);
  }
}

bool SERIAL_INTERFACE::Init() {
  return searchMode_ == SEARCH_MODE::kStoredDevice ? InitStoredDevice()
                                                   : InitFirstAnsweringDevice();
}

bool SERIAL_INTERFACE::InitStoredDevice() {
  tty_ = OpenSerialDevice(device_);
  if (!tty_.IsOpen()) {
    logger_.LOG(kError, "unable to open " + device_ + " for hardware communication", kLogLevel);
    return false;
  }
  return TryOpenDevice();
}

bool SERIAL_INTERFACE::InitFirstAnsweringDevice() {
  const std::list<std::string> devices = GetUSBDevices();
  if (devices.empty()) logger_.LOG(kError, kLogNoAdapter, kLogLevel);
  for (const std::string& device : devices) {
    device_ = device;
    tty_ = OpenSerialDevice(device_);
    if (!tty_.IsOpen()) {
      logger_.LOG(kError, kLogCannotOpen + device_ + " for hardware communication", kLogLevel);
    } else if (TryOpenDevice()) {
      return true;
    }
  }
  return false;
}

bool SERIAL_INTERFACE::TryOpenDevice() {
  linkState_ = LINK_STATE::kTrying;
  closeRequested_ = false;  // the request was for the previous tty
  const bool answered = SetSerialParams() && HardwareCheck(device_);
  linkState_ = answered ? LINK_STATE::kConnected : LINK_STATE::kDisconnected;
  if (!answered) tty_.Close();
  return answered;
}

bool SERIAL_INTERFACE::SetSerialParams() {
  const int error = ApplyLineSettings(tty_);
  if (error != 0) logger_.LOG(kError, "error " + ITOA(error) + kLogCannotSetUp, kLogLevel);
  return error == 0;
}

bool SERIAL_INTERFACE::HardwareCheck(const std::string& device) {
  logger_.LOG(kInfo, kLogTrying + device, kLogLevel);
  Sleep(kSettlePause);
  const BYTE_LIST reply = Comm2HW(HandshakeRequest());
  switch (GetQListError(reply)) {
    case kReplyGood:
      logger_.LOG(kInfo, kLogFound + device + " version: " + HandshakeVersion(reply), kLogLevel);
      return true;
    case kReplyTimeout:
      logger_.LOG(kInfo, kLogTimeout + device, kLogLevel);
      return false;
    default:
      // An error code is the answer of a card bus too. Nothing is logged.
      return true;
  }
}

BYTE_LIST SERIAL_INTERFACE::Comm2HW(const BYTE_LIST& request) {
  if (closeRequested_) {
    closeRequested_ = false;
    tty_.Close();
  }
  char bytes[kReadSize];
  // Drops stale input. If the read fails, so do the reads below, and the exchange times out.
  [[maybe_unused]] const ssize_t dropped = read(tty_.Number(), bytes, sizeof bytes);
  if (request.empty()) return EmptyRequestReply();
  const REQUEST_FRAME frame = BuildRequestFrame(request);
  if (write(tty_.Number(), frame.bytes.data(), frame.size) == -1) {
    logger_.LOG(kError, kLogCannotWrite + device_, kLogLevel);
  }
  REPLY_WAIT wait(request);
  while (wait.Waiting()) wait.Attempt(bytes, read(tty_.Number(), bytes, sizeof bytes));
  return wait.Reply();
}

void SERIAL_INTERFACE::mf_SIGhandler(int signal) {
  logger_.LOG(kInfo, "signal " + ITOA(signal) + " on serial interface", kLogLevel);
  // The task itself closes the tty: closed here, its number could be reused while the task reads.
  closeRequested_ = true;
}

// Sends at most one frame of each queue per cycle, so that no queue delays another.
void SERIAL_INTERFACE::ServeQueues() {
  for (TLQUEUE& queue : busQueues) {
    if (!queue.IsEmpty() && !Serve(&queue)) return;
  }
}

// False if the link is lost. The frame is then lost too: nothing is sent twice.
bool SERIAL_INTERFACE::Serve(TLQUEUE* queue) {
  const BYTE_LIST reply = Comm2HW(queue->DeQueue());
  switch (GetQListError(reply)) {
    case kReplyGood:
      ApplyReply(reply);
      return true;
    case kReplyTimeout:
      logger_.LOG(kInfo, kLogTimeout + device_, kLogLevel);
      tty_.Close();
      linkState_ = LINK_STATE::kDisconnected;
      return false;
    default:
      return true;
  }
}

void SERIAL_INTERFACE::QueuePolls() {
  MUTEX_GUARD guard(&cards_->lock);
  for (std::size_t address = 0; address < kAddressCount; ++address) {
    const PERIFCARD& card = cards_->cards[address];
    if (card.cardClass == CARD_CLASS::kInput && card.pollEnabled) {
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
    // The change flags stay as they are, so the card's last changes are sent to IO clients again.
    ApplyDirectAnswer(answer, &cards_->cards[address]);
    WriteToQueue(answer);
  } else if (address >= 0 && code == kInputAnswer) {
    if (ApplyInputAnswer(answer, &cards_->cards[address])) WriteToQueue(answer);
  }
}

void SERIAL_INTERFACE::WriteToQueue(const REPLY& answer) {
  const int address = AnswerAddress(answer);
  if (address < 0) return;
  for (const std::string& line : ChangedInputLines(address, cards_->cards[address])) {
    cardInput_->ToQueue(Convert_String2QList(line));
  }
}

#include "bus/frame.h"

#include <algorithm>

namespace {

constexpr int kAttempts = 150000;
constexpr int kLongAttempts = 300000;  // for discovery and handshake

int AttemptBudget(const BYTE_LIST& request) {
  if (request.empty()) return kAttempts;
  const char command = request.front();
  return command == kDiscoveryCommand || command == kHandshakeCommand ? kLongAttempts : kAttempts;
}

}  // namespace

BYTE_LIST DiscoveryRequest() { return {kDiscoveryCommand}; }

BYTE_LIST HandshakeRequest() { return {kHandshakeCommand, 0x6F, static_cast<char>(0x9A)}; }

std::string HandshakeVersion(const BYTE_LIST& reply) {
  const std::string text = Convert_QList2String(reply);
  return text.empty() ? text : text.substr(1, 4);
}

BYTE_LIST EmptyRequestReply() { return {'L', 'C', 'E'}; }

BYTE_LIST TimeoutReply() { return {'T', 'M', 'E'}; }

REQUEST_FRAME BuildRequestFrame(const BYTE_LIST& request) {
  REQUEST_FRAME frame{};
  const std::size_t size = std::min(request.size(), kMaxPayloadSize);
  frame.bytes[0] = static_cast<char>(size);
  std::copy_n(request.begin(), size, frame.bytes.begin() + 1);
  frame.size = 1 + size;
  return frame;
}

REPLY_WAIT::REPLY_WAIT(const BYTE_LIST& request) : budget_(AttemptBudget(request)) {}

void REPLY_WAIT::Attempt(const char* bytes, long count) {
  ++attempts_;
  if (count <= 0) return;
  const std::size_t room = buffer_.size() - std::min(received_, buffer_.size());
  const std::size_t stored = std::min(static_cast<std::size_t>(count), room);
  std::copy_n(bytes, stored, buffer_.begin() + static_cast<std::ptrdiff_t>(buffer_.size() - room));
  received_ += static_cast<std::size_t>(count);
  if (Complete()) waiting_ = false;
}

bool REPLY_WAIT::Complete() const {
  const std::size_t announced = ByteOf(buffer_[0]);
  return announced <= kMaxReplySize && received_ > announced;
}

BYTE_LIST REPLY_WAIT::Reply() const {
  if (waiting_ || attempts_ >= budget_) return TimeoutReply();
  const char* const payload = buffer_.data() + 1;
  return BYTE_LIST(payload, payload + ByteOf(buffer_[0]));
}

#include "mqtt/console_visit.h"

#include "mqtt/translate.h"

namespace mqtt {

std::string CONSOLE_VISIT::Take(const std::string& line) {
  switch (state_) {
    case STATE::kListing:
      return TakeKind(line);
    case STATE::kPolls:
      return TakePoll(line);
    case STATE::kInputs:
      // Errors in IO lines, which may come at any time, begin with COE.
      if (line.rfind("CIA:", 0) == 0 || line.rfind("CIE:", 0) == 0) isAnswered_ = true;
      return line == ">" && isAnswered_ ? NextInput() : "";
    case STATE::kDone:
    case STATE::kBroken:
      break;
  }
  return {};
}

// The list has an entry for each address, such as "DTI:0x5:EMPTY", in order, and a prompt behind
// it. Around them may stand errors in IO lines, with prompts of their own.
std::string CONSOLE_VISIT::TakeKind(const std::string& line) {
  constexpr std::size_t kStart = 8;  // "DTI:0x5:"
  if (line == "DISCOVER LIST:") {
    isListing_ = true;
  } else if (isListing_ && line.rfind("DTI:0x", 0) == 0) {
    const bool isNext = line.size() > kStart && kinds_.size() < kAddressCount &&
                        line[6] == InputLine(static_cast<int>(kinds_.size()), 0, 0)[1];
    if (!isNext) state_ = STATE::kBroken;
    if (isNext) kinds_.push_back(line.substr(kStart));
  } else if (line == ">" && kinds_.size() == kAddressCount) {
    state_ = STATE::kPolls;
    return "POLLSTATE";
  }
  return {};
}

std::string CONSOLE_VISIT::TakePoll(const std::string& line) {
  if (line.rfind("CIA: GLOBAL POLLING IS ", 0) == 0) {
    pollsAny_ = line == "CIA: GLOBAL POLLING IS ENABLED";
  } else if (line.rfind("PTI:0x", 0) == 0 && line.size() > 8) {
    polled_.set(HexCharToByte(line[6]), pollsAny_.value_or(false) && line.substr(8) == "ON");
  } else if (line == ">" && pollsAny_) {
    state_ = STATE::kInputs;
    return NextInput();
  }
  return {};
}

// Not before the prompt behind the answer: talp would log that it cannot send it.
std::string CONSOLE_VISIT::NextInput() {
  isAnswered_ = false;
  for (; next_ < kAddressCount * kBlockCount; ++next_) {
    const int address = next_ / kBlockCount;
    const int block = next_ % kBlockCount;
    const CARD_KIND* const kind = KindNamed(kinds_[static_cast<std::size_t>(address)]);
    const bool isAsked = kind != nullptr && kind->lastInputReadable && block < kind->inputBlocks;
    if (!isAsked) continue;
    ++next_;
    const std::string digits = InputLine(address, block, 0);
    return std::string("GETLASTINPST:") + digits[1] + "=" + digits[3];
  }
  state_ = STATE::kDone;
  return {};
}

}  // namespace mqtt

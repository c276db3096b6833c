#include "cardsim/fault_plan.h"

#include <algorithm>

#include "cardsim/card_bus.h"
#include "cardsim/table.h"

namespace {

struct REQUEST_NAME {
  const char* name;
  unsigned char code;
};

constexpr REQUEST_NAME kRequests[] = {
    {"handshake", kHandshake}, {"discovery", kDiscovery}, {"poll", kPoll},
    {"output", kOutput},       {"direct", kDirect},
};

BYTES Frame(const BYTES& payload) {
  BYTES frame = payload;
  frame.insert(frame.begin(), static_cast<unsigned char>(payload.size()));
  return frame;
}

PIECES AtOnce(BYTES bytes) { return {{std::chrono::milliseconds(0), std::move(bytes)}}; }

PIECES Lose(const BYTES&, unsigned) { return {}; }

// Length byte, first half, second half.
PIECES Split(const BYTES& payload, unsigned value) {
  const std::chrono::milliseconds pause(value);
  const auto middle = payload.begin() + static_cast<std::ptrdiff_t>(payload.size() / 2);
  return {{pause * 0, {static_cast<unsigned char>(payload.size())}},
          {pause, BYTES(payload.begin(), middle)},
          {pause * 2, BYTES(middle, payload.end())}};
}

PIECES Shorten(const BYTES& payload, unsigned) {
  BYTES frame = Frame(payload);
  frame.pop_back();
  return AtOnce(frame);
}

// Read as a reply of their own, the stray bytes promise far more than follows, so a master that
// does not drop them waits in vain.
PIECES AddStray(const BYTES& payload, unsigned) {
  BYTES frame = Frame(payload);
  frame.insert(frame.end(), 3, 0xEE);
  return AtOnce(frame);
}

PIECES Resize(const BYTES& payload, unsigned size) {
  BYTES corrupted = payload;
  corrupted.resize(size, 0x55);
  return AtOnce(Frame(corrupted));
}

PIECES Delay(const BYTES& payload, unsigned value) {
  return {{std::chrono::milliseconds(value), Frame(payload)}};
}

PIECES ReplaceAddress(const BYTES& payload, unsigned address) {
  BYTES corrupted = payload;
  if (corrupted.size() > 1) corrupted[1] = static_cast<unsigned char>(address);
  return AtOnce(Frame(corrupted));
}

PIECES ReplaceCode(const BYTES& payload, unsigned code) {
  BYTES corrupted = payload;
  corrupted[0] = static_cast<unsigned char>(code);
  return AtOnce(Frame(corrupted));
}

struct VALUE_RANGE {
  int base;  // of the digits that the value is typed with
  unsigned least;
  unsigned most;
};

constexpr VALUE_RANGE kNoValue = {10, 1, 0};
constexpr VALUE_RANGE kByte = {16, 0x00, 0xFF};

struct FAULT {
  const char* name;
  VALUE_RANGE range;
  unsigned initial;       // the value when none is typed
  unsigned char request;  // whose replies are corrupted unless "on" names another one, 0 for any
  PIECES (*corrupt)(const BYTES& payload, unsigned value);
};

// clang-format off
constexpr FAULT kFaults[] = {
    {"lost",         kNoValue,       0,        0,       Lose},
    {"split",        {10, 1, 1000},  3,        0,       Split},
    {"short",        kNoValue,       0,        0,       Shorten},
    {"long",         kNoValue,       0,        0,       AddStray},
    {"cut",          {10, 0, 19},    1,        0,       Resize},
    {"overlong",     {10, 20, 255},  200,      0,       Resize},
    {"late",         {10, 1, 60000}, 300,      0,       Delay},
    {"misaddressed", kByte,          0x10,     kPoll,   ReplaceAddress},
    {"error",        kByte,          kRefused, 0,       ReplaceCode},
    {"notq",         kNoValue,       kDone,    kDirect, ReplaceCode},
};
// clang-format on

}  // namespace

std::string FAULT_PLAN::Command(const WORDS& words) {
  if (words == WORDS{"off"}) {
    rules_.clear();
    return {};
  }
  const size_t nameEnd = std::min(words[0].find('='), words[0].size());
  const FAULT* const fault = FindRow(kFaults, words[0].substr(0, nameEnd));
  if (fault == nullptr) return "the faults are " + RowNames(kFaults);
  RULE rule = {JoinWords(words), fault->name, fault->corrupt, fault->initial, fault->request, 1};
  if (nameEnd < words[0].size()) {
    const auto value = ParseNumber(words[0].substr(nameEnd + 1), fault->range.base);
    if (!value || *value < fault->range.least || *value > fault->range.most) {
      return "the fault takes no such value";
    }
    rule.value = *value;
  }
  if (!ParseRest({words.begin() + 1, words.end()}, &rule)) {
    return "behind the fault comes [COUNT|forever] [on REQUEST]";
  }
  rules_.push_back(rule);
  return {};
}

bool FAULT_PLAN::ParseRest(WORDS words, RULE* rule) {
  if (words.size() >= 2 && words[words.size() - 2] == "on") {
    const REQUEST_NAME* const request = FindRow(kRequests, words.back());
    if (request == nullptr) return false;
    rule->request = request->code;
    words.resize(words.size() - 2);
  }
  if (words.empty()) return true;
  rule->repliesLeft = words[0] == "forever" ? kForever : ParseNumber(words[0], 10).value_or(0);
  return words.size() == 1 && rule->repliesLeft > 0;
}

PIECES FAULT_PLAN::Corrupt(const BYTES& request, const BYTES& reply) {
  const auto rule = std::find_if(rules_.begin(), rules_.end(), [&request](const RULE& candidate) {
    return candidate.request == 0 || candidate.request == request[0];
  });
  if (rule == rules_.end()) return AtOnce(Frame(reply));
  PIECES pieces = rule->corrupt(reply, rule->value);
  if (--rule->repliesLeft == 0) {
    out_->Print(std::string("fault ") + rule->name + " done");
    rules_.erase(rule);
  }
  return pieces;
}

void FAULT_PLAN::Show() const {
  for (const RULE& rule : rules_) out_->Print("fault" + rule.command);
}

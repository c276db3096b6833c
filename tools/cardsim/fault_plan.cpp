#include "cardsim/fault_plan.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

namespace cardsim {

namespace {

enum class ARGUMENT { kNone, kHexByte, kNumber };

constexpr unsigned kAddressed = RequestBit(REQUEST::kPoll) | RequestBit(REQUEST::kDirect);
constexpr unsigned kDirectOnly = RequestBit(REQUEST::kDirect);
constexpr unsigned kEvery = RequestBit(REQUEST::kHandshake) | RequestBit(REQUEST::kDiscovery) |
                            RequestBit(REQUEST::kOutput) | kAddressed;

constexpr unsigned char kFiller = 0x55;
// Read as a reply of their own, these promise far more than follows, so a master that does not
// drain them trips over them.
constexpr unsigned char kStray[] = {0xEE, 0xEE, 0xEE};

BYTES Frame(const BYTES& payload) {
  BYTES frame(1 + payload.size());
  frame[0] = static_cast<unsigned char>(payload.size());
  std::copy(payload.begin(), payload.end(), frame.begin() + 1);
  return frame;
}

PIECES AtOnce(BYTES bytes) { return {{0, std::move(bytes)}}; }

PIECES Lose(const BYTES&, int) { return {}; }

PIECES Split(const BYTES& payload, int pauseMs) {
  const auto middle = payload.begin() + static_cast<BYTES::difference_type>(payload.size() / 2);
  return {{0, {static_cast<unsigned char>(payload.size())}},
          {pauseMs, BYTES(payload.begin(), middle)},
          {2 * pauseMs, BYTES(middle, payload.end())}};
}

PIECES Shorten(const BYTES& payload, int) {
  BYTES frame = Frame(payload);
  frame.pop_back();
  return AtOnce(std::move(frame));
}

PIECES Cut(const BYTES& payload, int length) {
  BYTES spoilt = payload;
  spoilt.resize(std::min(spoilt.size(), static_cast<size_t>(length)));
  return AtOnce(Frame(spoilt));
}

PIECES Pad(const BYTES& payload, int length) {
  BYTES spoilt = payload;
  spoilt.resize(static_cast<size_t>(length), kFiller);
  return AtOnce(Frame(spoilt));
}

PIECES AddStray(const BYTES& payload, int) {
  BYTES frame = Frame(payload);
  frame.insert(frame.end(), std::begin(kStray), std::end(kStray));
  return AtOnce(std::move(frame));
}

PIECES Delay(const BYTES& payload, int delayMs) { return {{delayMs, Frame(payload)}}; }

PIECES Misaddress(const BYTES& payload, int address) {
  BYTES spoilt = payload;
  if (spoilt.size() > 1) spoilt[1] = static_cast<unsigned char>(address);
  return AtOnce(Frame(spoilt));
}

PIECES ReplaceCode(const BYTES& payload, int code) {
  BYTES spoilt = payload;
  spoilt[0] = static_cast<unsigned char>(code);
  return AtOnce(Frame(spoilt));
}

PIECES Empty(const BYTES&, int) { return AtOnce({0x00}); }

}  // namespace

struct FAULT {
  const char* name;
  ARGUMENT argument;
  const char* argumentName;
  int fallback;  // kNeeded: the argument cannot be left out
  int least;
  int most;
  unsigned requests;  // the replies that it makes sense for
  PIECES (*spoil)(const BYTES& payload, int argument);
  const char* help;
};

namespace {

constexpr int kNeeded = -1;

constexpr FAULT kFaults[] = {
    {"lost", ARGUMENT::kNone, "", 0, 0, 0, kEvery, Lose, "no reply at all"},
    {"split", ARGUMENT::kNumber, "MS", 3, 1, 1000, kEvery, Split,
     "three pieces, MS milliseconds apart (3)"},
    {"short", ARGUMENT::kNone, "", 0, 0, 0, kEvery, Shorten, "the last byte does not come"},
    {"cut", ARGUMENT::kNumber, "LEN", 1, 1, 255, kEvery, Cut,
     "a well-formed reply of only LEN bytes (1)"},
    {"overlong", ARGUMENT::kNumber, "LEN", 200, 20, 255, kEvery, Pad,
     "a well-formed reply padded to LEN bytes (200)"},
    {"long", ARGUMENT::kNone, "", 0, 0, 0, kEvery, AddStray, "three stray bytes after the reply"},
    {"late", ARGUMENT::kNumber, "MS", 300, 1, 60000, kEvery, Delay,
     "the reply comes MS milliseconds later (300)"},
    {"misaddressed", ARGUMENT::kHexByte, "HH", 0x10, 0, 255, kAddressed, Misaddress,
     "address byte HH (10), of poll and direct replies"},
    {"error", ARGUMENT::kHexByte, "HH", kNeeded, 0, 255, kEvery, ReplaceCode,
     "first byte HH: 54, 12, 23, 24, 4E, 42 and 43 are errors"},
    {"empty", ARGUMENT::kNone, "", 0, 0, 0, kEvery, Empty, "a length byte 00 alone"},
    {"notq", ARGUMENT::kHexByte, "HH", 'A', 0, 255, kDirectOnly, ReplaceCode,
     "a good direct reply whose first byte is HH (41), not 'Q'"},
};

const FAULT* FindFault(const std::string& name) {
  const auto* row = std::find_if(std::begin(kFaults), std::end(kFaults),
                                 [&name](const FAULT& fault) { return name == fault.name; });
  return row == std::end(kFaults) ? nullptr : row;
}

std::string UsageOf(const FAULT& fault) {
  std::string usage = std::string("fault ") + fault.name + " [N|forever]";
  if (fault.argument == ARGUMENT::kNone) return usage + " [on REQUEST]";
  const std::string name = fault.argumentName;
  return usage + (fault.fallback == kNeeded ? ' ' + name : " [" + name + ']') + " [on REQUEST]";
}

std::optional<int> ParseArgument(const FAULT& fault, const std::string& word) {
  std::optional<int> value;
  if (fault.argument == ARGUMENT::kHexByte) {
    const std::optional<unsigned char> byte = ParseHexByte(word);
    if (byte) value = *byte;
  } else if (fault.argument == ARGUMENT::kNumber) {
    value = ParseNumber(word);
  }
  if (value && (*value < fault.least || *value > fault.most)) return std::nullopt;
  return value;
}

std::string RequestsText(unsigned requests) {
  if (requests == kEvery) return {};
  std::string text;
  for (const REQUEST request : {REQUEST::kHandshake, REQUEST::kDiscovery, REQUEST::kPoll,
                                REQUEST::kOutput, REQUEST::kDirect}) {
    if ((requests & RequestBit(request)) == 0) continue;
    text += (text.empty() ? " on " : "|") + std::string(RequestWord(request));
  }
  return text;
}

// Takes "on REQUEST" off the end of the words and narrows the requests to it. False when there is
// no such request, or the fault never fits its replies.
bool TakeFilter(WORDS* words, unsigned* requests) {
  if (words->size() < 2 || (*words)[words->size() - 2] != "on") return true;
  const std::optional<REQUEST> request = ParseRequest(words->back());
  if (!request) return false;
  *requests &= RequestBit(*request);
  words->resize(words->size() - 2);
  return *requests != 0;
}

}  // namespace

bool FAULT_PLAN::TakeCountAndArgument(const WORDS& words, RULE* rule) {
  const FAULT& fault = *rule->fault;
  const bool needed = fault.fallback == kNeeded;
  // A lone word is the argument of a fault that cannot do without one, and the count of any other.
  const size_t counts = words.size() == 2 || (words.size() == 1 && !needed) ? 1 : 0;
  if (words.size() > 2 || (needed && words.empty())) return false;
  if (counts == 1) {
    rule->repliesLeft = words[0] == "forever" ? kForever : ParseNumber(words[0]).value_or(0);
  }
  if (words.size() > counts) {
    const std::optional<int> argument = ParseArgument(fault, words.back());
    if (!argument) return false;
    rule->argument = *argument;
  }
  return rule->repliesLeft != 0;
}

std::string FAULT_PLAN::Command(const WORDS& words) {
  if (words == WORDS{"off"}) {
    rules_.clear();
    return {};
  }
  const FAULT* fault = words.empty() ? nullptr : FindFault(words[0]);
  if (fault == nullptr) return "no such fault, see help";
  RULE rule{fault, 1, fault->fallback, fault->requests};
  WORDS rest(words.begin() + 1, words.end());
  if (!TakeFilter(&rest, &rule.requests)) return "no such replies for this fault, see help";
  if (!TakeCountAndArgument(rest, &rule)) return UsageOf(*fault);
  rules_.push_back(rule);
  return {};
}

PIECES FAULT_PLAN::Spoil(const ANSWER& answer, LINES* lines) {
  const auto rule = std::find_if(rules_.begin(), rules_.end(), [&answer](const RULE& candidate) {
    return (candidate.requests & RequestBit(answer.request)) != 0;
  });
  if (rule == rules_.end()) return AtOnce(Frame(answer.payload));
  PIECES pieces = rule->fault->spoil(answer.payload, rule->argument);
  if (rule->repliesLeft != kForever && --rule->repliesLeft == 0) {
    lines->push_back(std::string("fault ") + rule->fault->name + " done");
    rules_.erase(rule);
  }
  return pieces;
}

void FAULT_PLAN::Show(LINES* lines) const {
  for (const RULE& rule : rules_) {
    const std::string count =
        rule.repliesLeft == kForever ? "forever" : std::to_string(rule.repliesLeft);
    lines->push_back(std::string("fault ") + rule.fault->name + ' ' + count +
                     RequestsText(rule.requests));
  }
}

std::string FaultHelp() {
  constexpr size_t kUsageWidth = 20;
  std::string help;
  for (const FAULT& fault : kFaults) {
    std::string usage = std::string(fault.name);
    if (fault.argument != ARGUMENT::kNone) usage += ' ' + std::string(fault.argumentName);
    usage.resize(kUsageWidth, ' ');
    help += "  " + usage + fault.help + '\n';
  }
  return help;
}

}  // namespace cardsim

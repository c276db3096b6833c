// What people type at the console: lines run by the real command table, with the wait played as a
// card that answers, answers something else or keeps silent.

#include "bus/frame.h"
#include "core/speed.h"
#include "fuzz_input.h"
#include "master/cae_commands.h"

namespace {

constexpr int kMaxWaits = 32;  // every card command of the table once, and FORCEDISCOVER
constexpr std::size_t kMaxRequest = 5;

std::string TextOf(const BYTE_LIST& list) { return std::string(list.begin(), list.end()); }

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

class CONSOLE_FUZZ {
 public:
  explicit CONSOLE_FUZZ(FUZZ_INPUT* input)
      : firstKind_(input->Byte()),
        cardAnswers_(input->Byte()),
        inpSeparator_(PickSeparator(input->Byte())),
        outSeparator_(PickSeparator(input->Byte())),
        console_({&cards_,
                  &answers_,
                  &busCommands_,
                  &cardInput_,
                  &polling_,
                  {&delays_[0], &delays_[1], &delays_[2], &delays_[3], &delays_[4]},
                  inpSeparator_,
                  outSeparator_,
                  [this](int seconds) { PlayCard(seconds); },
                  [this] { ++closes_; }}) {
    FillCards(firstKind_, cards_.cards);
  }

  void Run(const std::string& line) {
    waits_ = 0;
    closes_ = 0;
    console_.Execute(line);
    CheckAnswers();
    CheckBus();
    while (!cardInput_.IsEmpty()) {
      Require(IsInputLine(TextOf(cardInput_.DeQueue())), "an input line has its form");
    }
    Require(closes_ == 0 || line == "EXIT" + inpSeparator_, "only EXIT closes");
    for (const int delay : delays_) {
      Require(delay >= 1 && delay <= kDefaultDelay && delay == delays_[0], "delays are in bounds");
    }
  }

 private:
  // Silence, an answer without a value, one with a value, or that and a new discovery.
  void PlayCard(int seconds) {
    Require(seconds == 1 && ++waits_ <= kMaxWaits, "the master waits a bounded number of seconds");
    CheckBus();
    if (cardAnswers_ % 4 == 0) return;
    for (unsigned char address = 0; address < kAddressCount; ++address) {
      const REPLY answer = {'Q', address, 0, cardAnswers_};
      ApplyDirectAnswer(cardAnswers_ % 4 == 1 ? REPLY{'Q', address} : answer,
                        &cards_.cards[address]);
    }
    if (cardAnswers_ % 4 == 3) FillCards(firstKind_, cards_.cards);
  }

  void CheckAnswers() {
    std::string last;
    Require(!answers_.IsEmpty(), "every line is answered");
    while (!answers_.IsEmpty()) {
      last = TextOf(answers_.DeQueue());
      Require(EndsWith(last, outSeparator_), "every answer ends with the separator");
    }
    Require(EndsWith(last, ">" + outSeparator_), "the prompt comes last");
  }

  void CheckBus() {
    while (!busCommands_.IsEmpty()) {
      const std::string request = TextOf(busCommands_.DeQueue());
      if (request == TextOf(DiscoveryRequest())) continue;
      Require(request.size() >= 4 && request.size() <= kMaxRequest, "a request has its length");
      Require(request[0] == kDirectCommand, "a request is a direct command");
      Require(ByteOf(request[1]) < kAddressCount, "a request is for a card");
    }
  }

  const unsigned char firstKind_;
  const unsigned char cardAnswers_;
  const std::string inpSeparator_;
  const std::string outSeparator_;
  int waits_ = 0;
  int closes_ = 0;
  CARD_TABLE cards_;
  TLQUEUE answers_;
  TLQUEUE busCommands_;
  TLQUEUE cardInput_;
  SHARED<bool> polling_ = true;
  SHARED<int> delays_[5] = {kDefaultDelay, kDefaultDelay, kDefaultDelay, kDefaultDelay,
                            kDefaultDelay};
  CAE_CONSOLE console_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FUZZ_INPUT input(data, size);
  CONSOLE_FUZZ fuzz(&input);
  // A NUL ends what is taken of a message, so it separates the messages of an input.
  std::string text = input.Rest();
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\0', start), text.size());
    fuzz.Run(text.substr(start, end - start));
    start = end + 1;
  }
  return 0;
}

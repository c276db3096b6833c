// What people type at the console: lines run by the real command table, with the wait played as a
// card that answers, answers something else or keeps silent.

#include <algorithm>

#include "core/speed.h"
#include "fuzz_input.h"
#include "master/cae_commands.h"

namespace {

constexpr int kMaxWaits = 32;  // every card command of the table once, and FORCEDISCOVER

// What the daemon takes never holds a NUL.
std::string Text(FUZZ_INPUT* input, unsigned size) {
  const std::string bytes = input->Bytes(size);
  return bytes.substr(0, bytes.find('\0'));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static CARD_TABLE table;  // one for all inputs: it takes long to build
  FUZZ_INPUT input(data, size);
  std::copy(AllCards().begin(), AllCards().end(), table.cards);
  const unsigned char cardAnswers = input.Byte();
  const std::string separator = Text(&input, input.Byte() % 3U);
  TLQUEUE answers, bus, cardInput;
  SHARED<bool> polling = true;
  SHARED<int> delay = kDefaultDelay;
  int waits = 0;
  // Silence, an answer without a value, one with a value, or that and a new discovery.
  const auto wait = [&](int seconds) {
    Require(seconds == 1 && ++waits <= kMaxWaits, "a line takes a bounded number of seconds");
    const std::string request = TextOf(bus.DeQueue());
    Require(request.size() <= 5 && bus.IsEmpty(), "a wait is for one request");
    Require(request.size() < 2 || ByteOf(request[1]) < kAddressCount, "a request is for a card");
    if (cardAnswers % 4 == 3) std::copy(AllCards().begin(), AllCards().end(), table.cards);
    REPLY answer = {'Q', 0, 0, cardAnswers};
    if (cardAnswers % 4 == 1) answer.resize(2);
    for (PERIFCARD& card : table.cards) {
      if (cardAnswers % 4 > 0) ApplyDirectAnswer(answer, &card);
    }
  };
  CAE_CONTEXT context;
  context.cards = &table;
  context.answers = &answers;
  context.busCommands = &bus;
  context.cardInput = &cardInput;
  context.globalPolling = &polling;
  context.delays.fill(&delay);
  context.inpSeparator = separator;
  context.outSeparator = "~";
  context.wait = wait;
  context.closeClient = [] {};
  CAE_CONSOLE console(context);
  while (!input.Empty()) {
    waits = 0;
    console.Execute(Text(&input, input.Byte()));
    std::string last;
    while (!answers.IsEmpty()) {
      last = TextOf(answers.DeQueue());
      Require(last.back() == '~', "every answer ends with the separator");
    }
    Require(last.size() > 1 && last[last.size() - 2] == '>', "the prompt comes last");
    while (!cardInput.IsEmpty()) Require(cardInput.DeQueue().size() == 7, "a line has its form");
    Require(delay >= 1 && delay <= kDefaultDelay, "the delay is in bounds");
  }
  return 0;
}

// What a message costs on its way between the daemon's pauses.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <string>

#include "bus/frame.h"
#include "bus/tlqueue.h"
#include "core/byte_list.h"
#include "core/logger.h"
#include "master/card_kinds.h"
#include "master/perifcard.h"
#include "net/io_command.h"

namespace {

const BYTE_LIST& PollRequest() {
  static const BYTE_LIST request = {kPollCommand, 3, 2};
  return request;
}

PERIFCARD CardOfKind(KIND_CODE kind, int address) {
  PERIFCARD cards[kAddressCount];
  REPLY answer(1 + kAddressCount, kKindEmpty);
  answer[1 + static_cast<std::size_t>(address)] = kind;
  ApplyDiscoveryAnswer(answer, cards);
  return cards[address];
}

void QueueInAndOut(benchmark::State& state) {
  TLQUEUE queue;
  const BYTE_LIST message(static_cast<std::size_t>(state.range(0)), 'a');
  for (auto _ : state) {
    queue.ToQueue(message);
    if (!queue.IsEmpty()) benchmark::DoNotOptimize(queue.DeQueue());
  }
}
BENCHMARK(QueueInAndOut)->Arg(3)->Arg(9)->Arg(64);

void FrameBuilt(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(BuildRequestFrame(PollRequest()));
}
BENCHMARK(FrameBuilt);

void ReplyTaken(benchmark::State& state) {
  const char bytes[] = {4, kInputAnswer, 3, 0x40, 0};
  for (auto _ : state) {
    REPLY_WAIT wait(PollRequest());
    wait.Attempt(bytes, 0);
    wait.Attempt(bytes, sizeof bytes);
    const BYTE_LIST reply = wait.Reply();
    benchmark::DoNotOptimize(GetQListError(reply));
  }
}
BENCHMARK(ReplyTaken);

void IoLineRecognised(benchmark::State& state) {
  PERIFCARD cards[kAddressCount];
  cards[5] = CardOfKind(kKindDigitalOutput, 5);
  for (auto _ : state) {
    for (const std::string& command : SplitCommands("a5b1dFB\r\n", "\r\n")) {
      benchmark::DoNotOptimize(ParseIoCommand(command, cards));
    }
  }
}
BENCHMARK(IoLineRecognised);

void InputAnswerApplied(benchmark::State& state) {
  PERIFCARD card = CardOfKind(kKindDigitalInput, 3);
  const bool changes = state.range(0) != 0;
  REPLY answer = {'!', 3, 0, 0};
  for (auto _ : state) {
    if (changes) ++answer[2];
    if (ApplyInputAnswer(answer, &card)) benchmark::DoNotOptimize(ChangedInputLines(3, card));
  }
}
BENCHMARK(InputAnswerApplied)->ArgName("changes")->Arg(0)->Arg(1);

void LogLine(benchmark::State& state) {
  char path[] = "/tmp/talp-micro-XXXXXX";
  close(mkstemp(path));
  LOGGER logger;
  logger.fileName = path;
  for (auto _ : state) logger.LOG(kInfo, "comm timeout /dev/ttyUSB0", kLogLevel);
  unlink(path);
}
BENCHMARK(LogLine)->Iterations(20000);

}  // namespace

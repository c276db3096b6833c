#include "master/perifcard.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "bus/frame.h"

namespace {

constexpr std::size_t kAnswerDataStart = 2;  // behind code and address

void SetName(const char* name, PERIFCARD* card) {
  std::snprintf(card->name, sizeof card->name, "%s", name);
}

// Every discovery without a clear repeats the poll in the frame. Beyond what the wire can carry in
// one frame nothing more would be sent, so the growth ends there.
void AppendPoll(int address, int blocks, BYTE_LIST* frame) {
  const BYTE_LIST poll = {kPollCommand, static_cast<char>(address), static_cast<char>(blocks)};
  if (frame->size() + poll.size() > kMaxPayloadSize) return;
  frame->insert(frame->end(), poll.begin(), poll.end());
}

void ApplyKind(int address, unsigned char code, PERIFCARD* card) {
  const CARD_KIND& kind = CardKindOf(code);
  card->kindCode = code;
  card->address = static_cast<unsigned char>(address);
  SetName(kind.name, card);
  card->cardClass = kind.cardClass;
  card->blockCount = kind.blockCount;
  std::fill_n(card->blockState, kind.initialBlocks, kind.initialState);
  if (kind.cardClass != kInputClass) return;
  card->pollEnabled = 1;
  AppendPoll(address, kind.inputBlocks, &card->pollFrame);
}

void StoreInput(int block, unsigned char value, PERIFCARD* card) {
  if (card->blockState[block] == value) return;
  card->blockState[block] = value;
  card->changeFlag[block] = 1;
}

void AddSamples(const unsigned char* samples, PERIFCARD* card) {
  for (int i = 0; i < kAnalogueChannels; ++i) card->analogSum[i] += samples[i];
  ++card->sampleCount;
}

// The samples that come with the answer that completes an average are in no sum: one answer in
// seven is dropped, deliberately.
void StoreAverages(PERIFCARD* card) {
  for (int i = 0; i < kAnalogueChannels; ++i) {
    StoreInput(i, static_cast<unsigned char>(card->analogSum[i] / card->sampleCount), card);
    card->analogSum[i] = 0;
  }
  card->sampleCount = 0;
}

}  // namespace

void PERIFCARD::clearPerifCard() {
  cardClass = kNoCardClass;
  blockCount = 0;
  kindCode = kKindEmpty;
  SetName(CardKindOf(kKindEmpty).name, this);
  samplesPerAverage = 6;
  std::fill_n(analogSum, kAnalogueChannels, 0);
  std::memset(blockState, 0, sizeof blockState);
  std::memset(changeFlag, 0, sizeof changeFlag);
  pollEnabled = 0;
  pollFrame.clear();
}

void PERIFCARD::ClearPIOAnswer() { std::memset(pioAnswer, 0, sizeof pioAnswer); }

bool PERIFCARD::HasDirectAnswer() const { return pioAnswer[0] == ByteOf(kDirectAnswer); }

int AnswerAddress(const REPLY& answer) {
  return answer.size() > 1 && answer[1] < kAddressCount ? answer[1] : -1;
}

void ApplyDiscoveryAnswer(const REPLY& answer, PERIFCARD* cards) {
  if (answer.size() < 1 + kAddressCount) return;
  for (int i = 0; i < kAddressCount; ++i) {
    ApplyKind(i, answer[1 + static_cast<std::size_t>(i)], &cards[i]);
  }
}

void ApplyDirectAnswer(const REPLY& answer, PERIFCARD* card) {
  card->ClearPIOAnswer();
  const std::size_t kept = std::min<std::size_t>(answer.size(), kPioAnswerSize);
  std::copy_n(answer.begin(), kept, card->pioAnswer);
}

bool ApplyInputAnswer(const REPLY& answer, PERIFCARD* card) {
  const CARD_KIND& kind = CardKindOf(card->kindCode);
  if (answer.size() < kAnswerDataStart + static_cast<std::size_t>(kind.inputBlocks)) return false;
  const unsigned char* const data = answer.data() + kAnswerDataStart;
  std::memset(card->changeFlag, 0, sizeof card->changeFlag);
  switch (kind.inputRule) {
    case INPUT_RULE::kNone:
      break;
    case INPUT_RULE::kCompare:
      for (int i = 0; i < kind.inputBlocks; ++i) StoreInput(i, data[i], card);
      break;
    case INPUT_RULE::kAverage:
      if (card->sampleCount < card->samplesPerAverage) {
        AddSamples(data, card);
      } else {
        StoreAverages(card);
      }
      break;
  }
  return std::find(card->changeFlag, card->changeFlag + kBlockCount, 1) !=
         card->changeFlag + kBlockCount;
}

std::string InputLine(int address, int block, unsigned char state) {
  char line[16];
  std::snprintf(line, sizeof line, "a%Xb%Xd%02X", static_cast<unsigned>(address),
                static_cast<unsigned>(block), static_cast<unsigned>(state));
  return line;
}

std::vector<std::string> ChangedInputLines(int address, const PERIFCARD& card) {
  std::vector<std::string> lines;
  for (int block = 0; block < kBlockCount; ++block) {
    if (card.changeFlag[block] == 0) continue;
    lines.push_back(InputLine(address, block, card.blockState[block]));
  }
  return lines;
}

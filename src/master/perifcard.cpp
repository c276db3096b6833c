#include "master/perifcard.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t kAnswerDataStart = 2;  // after code and address

void SetName(const char* name, PERIFCARD* card) {
  std::snprintf(card->name, sizeof card->name, "%s", name);
}

// A discovery without a clear before it appends another poll to the frame. The frame stops growing
// when it would not fit on the wire.
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
  if (kind.cardClass != CARD_CLASS::kInput) return;
  card->pollEnabled = true;
  AppendPoll(address, kind.inputBlocks, &card->pollFrame);
}

void StoreInput(int block, unsigned char value, PERIFCARD* card) {
  if (card->blockState[block] == value) return;
  card->blockState[block] = value;
  card->changeFlag[block] = true;
}

void AddSamples(const unsigned char* samples, PERIFCARD* card) {
  for (int i = 0; i < kAnalogueChannels; ++i) card->analogSum[i] += samples[i];
  ++card->sampleCount;
}

// The samples of the answer that completes an average are not used: with six samples an average,
// every seventh answer only triggers the report.
void StoreAverages(PERIFCARD* card) {
  for (int i = 0; i < kAnalogueChannels; ++i) {
    StoreInput(i, static_cast<unsigned char>(card->analogSum[i] / card->sampleCount), card);
    card->analogSum[i] = 0;
  }
  card->sampleCount = 0;
}

}  // namespace

void PERIFCARD::clearPerifCard() {
  cardClass = CARD_CLASS::kNone;
  blockCount = 0;
  kindCode = kKindEmpty;
  SetName(CardKindOf(kKindEmpty).name, this);
  samplesPerAverage = 6;
  std::fill_n(analogSum, kAnalogueChannels, 0);
  std::memset(blockState, 0, sizeof blockState);
  std::fill_n(changeFlag, kBlockCount, false);
  pollEnabled = false;
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
  const std::size_t stored = std::min<std::size_t>(answer.size(), kPioAnswerSize);
  std::copy_n(answer.begin(), stored, card->pioAnswer);
}

bool ApplyInputAnswer(const REPLY& answer, PERIFCARD* card) {
  const CARD_KIND& kind = CardKindOf(card->kindCode);
  if (answer.size() < kAnswerDataStart + static_cast<std::size_t>(kind.inputBlocks)) return false;
  const unsigned char* const data = answer.data() + kAnswerDataStart;
  std::fill_n(card->changeFlag, kBlockCount, false);
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
  return std::find(card->changeFlag, card->changeFlag + kBlockCount, true) !=
         card->changeFlag + kBlockCount;
}

std::string InputLine(int address, int block, unsigned char state) {
  return "a" + HexText(static_cast<unsigned>(address), 1) + "b" +
         HexText(static_cast<unsigned>(block), 1) + "d" + HexText(state, 2);
}

std::vector<std::string> ChangedInputLines(int address, const PERIFCARD& card) {
  std::vector<std::string> lines;
  for (int block = 0; block < kBlockCount; ++block) {
    if (!card.changeFlag[block]) continue;
    lines.push_back(InputLine(address, block, card.blockState[block]));
  }
  return lines;
}

#ifndef TALP_MASTER_PERIFCARD_H_
#define TALP_MASTER_PERIFCARD_H_

#include <string>
#include <vector>

#include "bus/frame.h"
#include "core/byte_list.h"
#include "master/card_kinds.h"

constexpr int kAddressCount = 16;  // bus addresses 0..F
constexpr int kBlockCount = 16;
constexpr int kPioAnswerSize = 16;
constexpr int kAnalogueChannels = 6;

// What is known about the card at one bus address. A plain record with pure rules; its owner guards
// it (CARD_TABLE).
struct PERIFCARD {
  PERIFCARD() { clearPerifCard(); }

  CARD_CLASS cardClass = CARD_CLASS::kNone;
  int blockCount = 0;
  unsigned char address = 0;
  unsigned char kindCode = 0;
  char name[40] = {};
  unsigned char blockState[kBlockCount] = {};    // last input (or average), or last value written
  bool changeFlag[kBlockCount] = {};             // changed with the latest input answer
  unsigned char pioAnswer[kPioAnswerSize] = {};  // latest direct answer: code, address, data
  bool pollEnabled = false;
  int analogSum[kAnalogueChannels] = {};
  int sampleCount = 0;
  int samplesPerAverage = 0;
  BYTE_LIST pollFrame;

  // Resets the record to "EMPTY", but for `address`, `pioAnswer` and, which is fixed
  // (docs/architecture.md), `sampleCount`: an average that a clear interrupts is too low.
  void clearPerifCard();

  // To be called before a direct command, so that an old answer is not taken for the new one.
  void ClearPIOAnswer();

  bool HasDirectAnswer() const;
};

// The address (0..15) of the card that sent an input or direct answer. -1 if the answer has no
// address byte, or one above 15.
int AnswerAddress(const REPLY& answer);

// Applies a discovery answer to `cards[0..15]`. Appends to the poll frames and switches every input
// card's polling on, even after a POLLOFF; a caller that wants fresh records clears them first.
// Ignores an answer of fewer than 16 kinds.
void ApplyDiscoveryAnswer(const REPLY& answer, PERIFCARD* cards);

// Stores the first 16 bytes of a direct answer; a shorter one is filled up with zeros.
void ApplyDirectAnswer(const REPLY& answer, PERIFCARD* card);

// Applies an input answer and sets the change flags of the blocks that it changes. Ignores an
// answer that is too short for the card's kind. Returns whether it has set a flag.
bool ApplyInputAnswer(const REPLY& answer, PERIFCARD* card);

// "a3b0d40": the line that reports the state of an input block to IO clients.
std::string InputLine(int address, int block, unsigned char state);

// The input lines of all blocks of the card at `address` whose change flag is set, in block order.
std::vector<std::string> ChangedInputLines(int address, const PERIFCARD& card);

#endif  // TALP_MASTER_PERIFCARD_H_

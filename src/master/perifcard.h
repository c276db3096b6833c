#ifndef TALP_MASTER_PERIFCARD_H_
#define TALP_MASTER_PERIFCARD_H_

#include <string>
#include <vector>

#include "core/byte_list.h"
#include "master/card_kinds.h"

constexpr int kAddressCount = 16;  // bus addresses 0..F
constexpr int kBlockCount = 16;
constexpr int kPioAnswerSize = 16;
constexpr int kAnalogueChannels = 6;

// What is known of the card at one bus address. A plain record and pure rules: whoever shares
// records between threads guards them.
struct PERIFCARD {
  PERIFCARD() { clearPerifCard(); }

  int cardClass = 0;
  int blockCount = 0;
  unsigned char address = 0;
  unsigned char kindCode = 0;
  char name[40] = {};
  unsigned char blockState[kBlockCount] = {};    // last input (or average), or last value written
  unsigned char changeFlag[kBlockCount] = {};    // 1: changed with the latest input answer
  unsigned char pioAnswer[kPioAnswerSize] = {};  // latest direct answer: 'Q', address, data
  unsigned char pollEnabled = 0;
  int analogSum[kAnalogueChannels] = {};
  int sampleCount = 0;
  int samplesPerAverage = 0;
  BYTE_LIST pollFrame;

  // Back to "EMPTY". Leaves `address`, `pioAnswer` and `sampleCount` as they are, deliberately.
  void clearPerifCard();

  // Called before a direct command, so that a stale answer cannot be taken for a new one.
  void ClearPIOAnswer();

  bool HasDirectAnswer() const;
};

// The payload of a card bus reply; its first byte is the reply code.
using REPLY = std::vector<unsigned char>;

// The address (0..15) of the card that sent an input or direct answer, or -1 if the answer has no
// address byte or one that reaches no record.
int AnswerAddress(const REPLY& answer);

// Applies a discovery answer to `cards[0..15]`. Poll frames are appended to, not replaced, and
// every input card's polling is switched on, deliberately; records that are to start afresh are
// cleared first. An answer of fewer than 16 kinds is ignored.
void ApplyDiscoveryAnswer(const REPLY& answer, PERIFCARD* cards);

// Keeps the first 16 bytes of a direct answer, with zeros behind a shorter one.
void ApplyDirectAnswer(const REPLY& answer, PERIFCARD* card);

// Applies an input answer and sets the change flags of the blocks that it changes. An answer too
// short for the card's kind is ignored. Returns whether any flag is set.
bool ApplyInputAnswer(const REPLY& answer, PERIFCARD* card);

// "a%Xb%Xd%02X": how IO clients learn the state of an input block.
std::string InputLine(int address, int block, unsigned char state);

// The input lines of all blocks of the card at `address` whose change flag is set, in block order.
std::vector<std::string> ChangedInputLines(int address, const PERIFCARD& card);

#endif  // TALP_MASTER_PERIFCARD_H_

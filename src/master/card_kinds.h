#ifndef TALP_MASTER_CARD_KINDS_H_
#define TALP_MASTER_CARD_KINDS_H_

// The kind codes that cards report about themselves.
enum KIND_CODE : unsigned char {
  kKindEmpty = 0,
  kKindDigitalOutput = 3,
  kKindDigitalInput = 4,
  kKindServo = 5,
  kKindMotor = 6,
  kKindAnalogueInput = 7,
  kKindKeypad = 8,
  kKindLcd = 9,
  kKindIrRemote = 10,
  kKindUnknownCard = 0xFF
};

// What the bus may do with a card.
enum CARD_CLASS : int {
  kOutputClass = 0,  // output and stream cards: never polled
  kInputClass = 1,   // input cards: can be polled
  kNoCardClass = 3   // no usable card
};

// How an input answer changes the record of a card.
enum class INPUT_RULE { kNone, kCompare, kAverage };

// All that differs between kinds of cards.
struct CARD_KIND {
  KIND_CODE code;
  const char* name;
  CARD_CLASS cardClass;
  int blockCount;
  unsigned char initialState;  // of the first `initialBlocks` blocks, set by discovery
  int initialBlocks;
  int inputBlocks;  // data bytes asked for by a poll and needed in its answer
  INPUT_RULE inputRule;
  bool lastInputReadable;  // the console may ask for the last input of one of its blocks
  int outputBlocks;        // block states in one output frame; 0: takes no block frames
};

// The row of `code`; of kinds that are not known the row "UNIDENTIFIED". Any thread.
const CARD_KIND& CardKindOf(unsigned char code);

#endif  // TALP_MASTER_CARD_KINDS_H_

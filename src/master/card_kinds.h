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

// Decides whether a card is polled.
enum class CARD_CLASS : int {
  kOutput = 0,  // output and stream cards: never polled
  kInput = 1,   // input cards: can be polled
  kNone = 3     // no usable card
};

// How an input answer changes the record of a card.
enum class INPUT_RULE { kNone, kCompare, kAverage };

// Everything in which the kinds of cards differ.
struct CARD_KIND {
  KIND_CODE code;
  const char* name;
  CARD_CLASS cardClass;
  int blockCount;
  unsigned char initialState;  // of the first `initialBlocks` blocks, set by discovery
  int initialBlocks;
  int inputBlocks;  // data bytes that a poll requests and its answer must have
  INPUT_RULE inputRule;
  bool lastInputReadable;  // GETLASTINPST works on this kind
  int outputBlocks;        // block states in one output frame; 0: takes no block frames
};

// The row of `code`, or the row "UNIDENTIFIED" if there is none. Any thread.
const CARD_KIND& CardKindOf(unsigned char code);

#endif  // TALP_MASTER_CARD_KINDS_H_

#include "master/card_kinds.h"

namespace {

constexpr CARD_CLASS kOutputClass = CARD_CLASS::kOutput;
constexpr CARD_CLASS kInputClass = CARD_CLASS::kInput;
constexpr CARD_CLASS kNoCardClass = CARD_CLASS::kNone;

constexpr INPUT_RULE kNone = INPUT_RULE::kNone;
constexpr INPUT_RULE kCompare = INPUT_RULE::kCompare;
constexpr INPUT_RULE kAverage = INPUT_RULE::kAverage;

// clang-format off
constexpr CARD_KIND kCardKinds[] = {
    // code               name                           class         blocks  initial   input         last   output
    {kKindEmpty,         "EMPTY",                        kNoCardClass,  0,     0x00, 0,  0, kNone,     false, 0},
    {kKindDigitalOutput, "16 channel DIGITAL OUTPUT",    kOutputClass,  2,     0xFF, 2,  0, kNone,     false, 2},
    {kKindDigitalInput,  "16 channel DIGITAL INPUT",     kInputClass,   2,     0x00, 0,  2, kCompare,  true,  0},
    {kKindServo,         "6 channel RC SERVO CONTROLLER", kOutputClass, 6,     0x80, 6,  0, kNone,     false, 6},
    {kKindMotor,         "3 channel DC MOTOR CONTROLLER", kOutputClass, 6,     0x00, 0,  0, kNone,     false, 4},
    {kKindAnalogueInput, "6 channel ANALOGUE INPUT",     kInputClass,   6,     0x00, 0,  6, kAverage,  true,  0},
    {kKindKeypad,        "KEYMX and ROTE CONTROLLER",    kInputClass,   1,     0x00, 0,  1, kCompare,  false, 0},
    {kKindLcd,           "ALPHANUMERIC LCD CONTROLLER",  kOutputClass,  21,    0x00, 0,  0, kNone,     false, 0},
    {kKindIrRemote,      "IR REMOTE CONTROLLER",         kOutputClass,  1,     0x00, 0,  0, kNone,     false, 0},
    {kKindUnknownCard,   "CARD?",                        kNoCardClass,  0,     0x00, 0,  0, kNone,     false, 0},
};

// For all other codes; its own code is not used.
constexpr CARD_KIND kUnidentified =
    {kKindUnknownCard,   "UNIDENTIFIED",                 kNoCardClass,  0,     0x00, 0,  0, kNone,     false, 0};
// clang-format on

}  // namespace

const CARD_KIND& CardKindOf(unsigned char code) {
  for (const CARD_KIND& kind : kCardKinds) {
    if (kind.code == code) return kind;
  }
  return kUnidentified;
}

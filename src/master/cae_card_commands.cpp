#include "master/cae_card_commands.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>

#include "bus/frame.h"
#include "core/byte_list.h"
#include "master/cae_commands.h"
#include "master/cae_line.h"

namespace {

constexpr unsigned char kWrite = 0x01;
constexpr unsigned char kRead = 0x40;
constexpr unsigned char kStateOn = 0xFF;
constexpr unsigned char kStateOff = 0x00;
constexpr int kAnswerValueAt = 3;  // where a direct answer carries the value that was asked for

// Where a payload byte comes from.
enum class SOURCE {
  kNothing,   // no byte: the payload ends
  kLiteral,   // `base`
  kState,     // ON or OFF, or the one remembered
  kValue,     // the two digits after '='
  kChannel,   // `base` plus the digit before ':'
  kServoSet,  // the same, with `baseB` instead when the character before that digit is B
};

struct PAYLOAD_BYTE {
  SOURCE source = SOURCE::kNothing;
  unsigned char base = 0;
  unsigned char baseB = 0;
};

// A payload starts with the direct command, the address and `access`. In success lines stand for
//   {x} the address as typed       {a} the address in hexadecimal
//   {s} the state as shown         {v} the value after '=', two hexadecimal digits
//   {p} the character before {c}   {c} the character before ':', as typed
//   {n} the same as a number       {r} the value in the card's answer, likewise
struct CARD_COMMAND {
  const char* key;
  std::optional<KIND_CODE> kind;  // none: every kind will do
  const char* kindError;
  unsigned char access;
  PAYLOAD_BYTE payload[2];
  const char* success[2];  // null: no such line
  const char* failure;
};

constexpr char kLcdOnly[] = "CIE: THIS COMMAND IS VALID FOR LCD CONTROL CARD ONLY";
constexpr char kAnalogOnly[] = "CIE: THIS COMMAND IS VALID ON ANALOG INPUT CARD ONLY";
constexpr char kServoOnly[] = "CIE: THIS COMMAND IS VALID ON SERVO CONTROLLER CARD ONLY";
// One servo command says LEGAL where the others say VALID: deliberate.
constexpr char kServoLegal[] = "CIE: THIS COMMAND IS LEGAL ON SERVO CONTROLLER CARD ONLY";
constexpr char kMotorOnly[] = "CIE: THIS COMMAND IS VALID ON DC MOTOR CONTROLLER CARD ONLY";

// clang-format off
constexpr CARD_COMMAND kCardCommands[] = {
    {"LCDSELFTEST:", kKindLcd, kLcdOnly, kWrite, {{SOURCE::kLiteral, 0x01}, {SOURCE::kState}},
     {"CIA: SELFTEST STATE IS SET TO {s} at address {x}"}, "CIE: STATE WRITE ERROR"},
    {"LCDINITLIGHT:", kKindLcd, kLcdOnly, kWrite, {{SOURCE::kLiteral, 0x02}, {SOURCE::kState}},
     {"CIA: INITLIGHT STATE IS SET TO {s} at address {x}"}, "CIE: STATE WRITE ERROR"},
    // Every card can be rebooted, so no kind is asked for.
    {"REBOOT:", std::nullopt, "", kWrite, {{SOURCE::kLiteral, 0xAB}},
     {"CIA: Card is REBOOTED", "RBT:0x{a}:OK"}, "CIE: BUS WRITE ERROR"},
    {"SETANMASK:", kKindAnalogueInput, kAnalogOnly, kWrite, {{SOURCE::kLiteral, 0x01}, {SOURCE::kValue}},
     {"CIA: Channel MASK of the card is SET", "AMS:0x{a}:0x{v}"}, "CIE: MASK WRITE ERROR"},
    {"GETANMASK:", kKindAnalogueInput, kAnalogOnly, kRead, {{SOURCE::kLiteral, 0x01}},
     {"CIA: MASK is GOT from card", "AMV:0x{a}:0x{r}"}, "CIE: MASK READ ERROR"},
    {"STOREANMASK:", kKindAnalogueInput, kAnalogOnly, kWrite, {{SOURCE::kLiteral, 0x02}},
     {"CIA: MASK IS STORED at address {x}"}, "CIE: MASK STORE ERROR"},
    {"STORESRVPOS:", kKindServo, kServoOnly, kWrite, {{SOURCE::kLiteral, 0x74}},
     {"CIA: POSITIONS ARE STORED at address {x}"}, "CIE: POSITION STORING ERROR"},
    {"MOVESTRPOS:", kKindServo, kServoLegal, kWrite, {{SOURCE::kLiteral, 0x3F}},
     {"CIA: SERVOS ARE MOVED TO STORED POSITIONS at address {x}"}, "CIE: POSITIONS MOVING ERROR"},
    {"SETSC", kKindServo, kServoOnly, kWrite, {{SOURCE::kServoSet, 0xC0, 0xD0}, {SOURCE::kValue}},
     {"CIA: SERVO PARAM of the card is SET", "SPS:0x{a}:SC{p}{c}:0x{v}"}, "CIE: PARAM WRITE ERROR"},
    {"GETSC", kKindServo, kServoOnly, kRead, {{SOURCE::kServoSet, 0x21, 0x27}},
     {"CIA: SERVO PARAM is GOT from card", "SPG:0x{a}:SC{p}{c}:0x{r}"}, "CIE: PARAM READ ERROR"},
    {"SETMSR", kKindMotor, kMotorOnly, kWrite, {{SOURCE::kChannel, 0xC0}, {SOURCE::kValue}},
     {"CIA: MSR value of the card is SET", "MPS:0x{a}:MSR{c}:0x{v}"}, "CIE: PARAM WRITE ERROR"},
    {"GETMSR", kKindMotor, kMotorOnly, kRead, {{SOURCE::kChannel, 0x01}},
     {"CIA: MSR value is GOT from card", "MSR{n}:0x{a}:0x{r}"}, "CIE: PARAM READ ERROR"},
    {"STOREMSRS", kKindMotor, kMotorOnly, kWrite, {{SOURCE::kLiteral, 0xCD}},
     {"CIA: MSR values are STORED at address {x}"}, "CIE: MSR STORING ERROR"},
};
// clang-format on

static_assert(std::size(kCardCommands) <= kMaxCardCommands);

std::string Hex(int digits, unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "%.*X", digits, value);
  return text;
}

// The arguments of one line, as typed. A line need not hold all of them.
struct ARGUMENTS {
  explicit ARGUMENTS(const std::string& line)
      : address(TextAfter(line, ':', 1)),
        value(TextAfter(line, '=', 2)),
        channel(CharBefore(line, ':', 1)),
        set(CharBefore(line, ':', 2)) {}

  const std::string address;
  const std::string value;
  const std::string channel;
  const std::string set;
};

// Neither ON nor OFF sends what was sent last, deliberately.
unsigned char StateByte(const std::string& typed, unsigned char* remembered) {
  if (typed == "ON") *remembered = kStateOn;
  if (typed == "OF") *remembered = kStateOff;
  return *remembered;
}

unsigned char PayloadByte(const PAYLOAD_BYTE& recipe, const ARGUMENTS& arguments,
                          unsigned char* rememberedState) {
  const unsigned char base =
      recipe.source == SOURCE::kServoSet && arguments.set == "B" ? recipe.baseB : recipe.base;
  switch (recipe.source) {
    case SOURCE::kNothing:
    case SOURCE::kLiteral:
      break;
    case SOURCE::kState:
      return StateByte(arguments.value, rememberedState);
    case SOURCE::kValue:
      return TwoDigitsOf(arguments.value);
    case SOURCE::kChannel:
    case SOURCE::kServoSet:
      return static_cast<unsigned char>(base + DigitOf(arguments.channel));
  }
  return base;
}

BYTE_LIST Payload(const CARD_COMMAND& command, const ARGUMENTS& arguments,
                  unsigned char* rememberedState) {
  BYTE_LIST payload = {kDirectCommand, static_cast<char>(DigitOf(arguments.address)),
                       static_cast<char>(command.access)};
  for (const PAYLOAD_BYTE& recipe : command.payload) {
    if (recipe.source == SOURCE::kNothing) break;
    payload.push_back(static_cast<char>(PayloadByte(recipe, arguments, rememberedState)));
  }
  return payload;
}

std::string Placeholder(char name, const ARGUMENTS& arguments, unsigned char answerValue) {
  switch (name) {
    case 'x':
      return arguments.address;
    case 'a':
      return Hex(1, DigitOf(arguments.address));
    case 's':
      return arguments.value == "OF" ? "OFF" : arguments.value;
    case 'v':
      return Hex(2, TwoDigitsOf(arguments.value));
    case 'p':
      return arguments.set;
    case 'c':
      return arguments.channel;
    case 'n':
      return ITOA(DigitOf(arguments.channel));
    default:
      return Hex(2, answerValue);
  }
}

std::string SuccessLine(const char* pattern, const ARGUMENTS& arguments,
                        unsigned char answerValue) {
  std::string line;
  for (const char* at = pattern; *at != '\0'; ++at) {
    if (*at != '{') {
      line.push_back(*at);
      continue;
    }
    line += Placeholder(at[1], arguments, answerValue);
    at += 2;  // to the closing brace
  }
  return line;
}

// False, and nothing cleared, if the card is of another kind than the command needs.
bool PrepareCard(const CARD_COMMAND& command, unsigned char address, CARD_TABLE* table) {
  MUTEX_GUARD guard(&table->lock);
  PERIFCARD* const card = &table->cards[address];
  if (command.kind && card->kindCode != *command.kind) return false;
  card->ClearPIOAnswer();
  return true;
}

// The value in the card's direct answer, or none if it has not answered.
std::optional<unsigned char> AnswerValue(unsigned char address, CARD_TABLE* table) {
  MUTEX_GUARD guard(&table->lock);
  const PERIFCARD& card = table->cards[address];
  if (!card.HasDirectAnswer()) return std::nullopt;
  return card.pioAnswer[kAnswerValueAt];
}

void AnswerSuccess(const CARD_COMMAND& command, const ARGUMENTS& arguments, unsigned char value,
                   CAE_CONSOLE* console) {
  for (const char* const pattern : command.success) {
    if (pattern != nullptr) console->Answer(SuccessLine(pattern, arguments, value));
  }
}

}  // namespace

void RunCardCommand(const char* key, const std::string& line, CAE_CONSOLE* console) {
  const CARD_COMMAND* const command =
      std::find_if(std::begin(kCardCommands), std::end(kCardCommands),
                   [key](const CARD_COMMAND& row) { return std::strcmp(row.key, key) == 0; });
  if (command == std::end(kCardCommands)) return;
  const std::size_t row = static_cast<std::size_t>(command - std::begin(kCardCommands));
  const ARGUMENTS arguments(line);
  const unsigned char address = DigitOf(arguments.address);
  CAE_CONTEXT& context = console->Context();
  if (!PrepareCard(*command, address, context.cards)) {
    console->Answer(command->kindError);
    return;
  }
  context.busCommands->ToQueue(Payload(*command, arguments, &console->RememberedState(row)));
  context.wait(1);
  const std::optional<unsigned char> value = AnswerValue(address, context.cards);
  if (value) {
    AnswerSuccess(*command, arguments, *value, console);
  } else {
    console->Answer(command->failure);
  }
}

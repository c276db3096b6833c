#include "master/cae_card_commands.h"

#include <cstdio>

#include "bus/frame.h"
#include "core/byte_list.h"
#include "master/cae_line.h"

namespace {

constexpr unsigned char kStateOn = 0xFF;
constexpr unsigned char kStateOff = 0x00;
constexpr int kAnswerValueAt = 3;  // the byte of a direct answer that holds the value

std::string Hex(int digits, unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "%.*X", digits, value);
  return text;
}

// The arguments of one line, as typed. Those that are not in the line are empty.
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

// Any other argument repeats the last state sent.
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

// False if the card is not of the kind that the command needs; its answer is then not cleared.
bool PrepareCard(const CARD_COMMAND& command, unsigned char address, CARD_TABLE* table) {
  MUTEX_GUARD guard(&table->lock);
  PERIFCARD* const card = &table->cards[address];
  if (command.kind && card->kindCode != *command.kind) return false;
  card->ClearPIOAnswer();
  return true;
}

// The value in the card's direct answer, or none if it has not answered.
std::optional<unsigned char> AnswerValue(unsigned char address, const CARD_TABLE& table) {
  MUTEX_GUARD guard(&table.lock);
  const PERIFCARD& card = table.cards[address];
  if (!card.HasDirectAnswer()) return std::nullopt;
  return card.pioAnswer[kAnswerValueAt];
}

void AnswerSuccess(const CARD_COMMAND& command, const ARGUMENTS& arguments, unsigned char value,
                   const CAE_CONTEXT& console) {
  for (const char* const pattern : command.success) {
    if (pattern != nullptr) console.Answer(SuccessLine(pattern, arguments, value));
  }
}

}  // namespace

void RunCardCommand(const CARD_COMMAND& command, const std::string& line,
                    const CAE_CONTEXT& console, unsigned char* rememberedState) {
  const ARGUMENTS arguments(line);
  const unsigned char address = DigitOf(arguments.address);
  if (!PrepareCard(command, address, console.cards)) {
    console.Answer(command.kindError);
    return;
  }
  console.busCommands->ToQueue(Payload(command, arguments, rememberedState));
  console.wait(1);
  const std::optional<unsigned char> value = AnswerValue(address, *console.cards);
  if (value) {
    AnswerSuccess(command, arguments, *value, console);
  } else {
    console.Answer(command.failure);
  }
}

#include "master/cae_card_commands.h"

#include <cstddef>
#include <cstring>
#include <utility>

#include "bus/frame.h"
#include "core/byte_list.h"
#include "master/cae_line.h"

namespace {

constexpr unsigned char kStateOn = 0xFF;
constexpr unsigned char kStateOff = 0x00;
constexpr int kAnswerValueAt = 3;  // the byte of a direct answer that holds the value

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

// The arguments are too short to look like a placeholder.
std::string SuccessLine(std::string line, const ARGUMENTS& arguments, unsigned char answer) {
  const std::pair<const char*, std::string> texts[] = {
      {"{typed}", arguments.address},
      {"{address}", HexText(DigitOf(arguments.address), 1)},
      {"{state}", arguments.value == "OF" ? "OFF" : arguments.value},
      {"{value}", HexText(TwoDigitsOf(arguments.value), 2)},
      {"{set}", arguments.set},
      {"{channel}", arguments.channel},
      {"{number}", ITOA(DigitOf(arguments.channel))},
      {"{answer}", HexText(answer, 2)},
  };
  for (const auto& [placeholder, text] : texts) {
    const std::size_t at = line.find(placeholder);
    if (at != std::string::npos) line.replace(at, std::strlen(placeholder), text);
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

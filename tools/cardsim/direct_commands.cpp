#include "cardsim/card.h"

namespace {

constexpr unsigned char kWrite = 0x01;
constexpr unsigned char kRead = 0x40;

constexpr unsigned char kAnyKind = 0x00;

// kPrint: nothing is stored and nothing moves here, so the command is only printed.
enum class ACTION { kSet, kGet, kPrint, kReboot };

struct DIRECT_COMMAND {
  unsigned char kind;
  unsigned char access;
  unsigned char firstCode;  // the row covers `count` codes, one a channel
  unsigned char count;
  ACTION action;
  size_t firstParam;  // of those that are set or read
  const char* word;
};

constexpr DIRECT_COMMAND kCommands[] = {
    {kAnyKind, kWrite, 0xAB, 1, ACTION::kReboot, 0, "reboot"},
    {kLcd, kWrite, 0x01, 1, ACTION::kSet, 0, "selftest"},
    {kLcd, kWrite, 0x02, 1, ACTION::kSet, 1, "initlight"},
    {kAnalogue, kWrite, 0x01, 1, ACTION::kSet, 0, "mask"},
    {kAnalogue, kRead, 0x01, 1, ACTION::kGet, 0, "mask"},
    {kAnalogue, kWrite, 0x02, 1, ACTION::kPrint, 0, "store mask"},
    {kServo, kWrite, 0x74, 1, ACTION::kPrint, 0, "store positions"},
    {kServo, kWrite, 0x3F, 1, ACTION::kPrint, 0, "move to stored positions"},
    {kServo, kWrite, 0xC0, 6, ACTION::kSet, 0, "SCA"},
    {kServo, kRead, 0x21, 6, ACTION::kGet, 0, "SCA"},
    {kServo, kWrite, 0xD0, 6, ACTION::kSet, 6, "SCB"},
    {kServo, kRead, 0x27, 6, ACTION::kGet, 6, "SCB"},
    {kMotor, kWrite, 0xC0, 3, ACTION::kSet, 0, "MSR"},
    {kMotor, kRead, 0x01, 3, ACTION::kGet, 0, "MSR"},
    {kMotor, kWrite, 0xCD, 1, ACTION::kPrint, 0, "store MSR"},
};

const DIRECT_COMMAND* FindCommand(const CARD& card, const BYTES& command) {
  for (const DIRECT_COMMAND& row : kCommands) {
    const size_t size = row.action == ACTION::kSet ? 3 : 2;
    if ((row.kind == kAnyKind || row.kind == card.code) && command.size() == size &&
        command[0] == row.access && command[1] >= row.firstCode &&
        command[1] < row.firstCode + row.count) {
      return &row;
    }
  }
  return nullptr;
}

}  // namespace

std::optional<unsigned char> RunDirectCommand(CARD& card, const BYTES& command, LINE_OUTPUT* out) {
  const DIRECT_COMMAND* const row = FindCommand(card, command);
  if (row == nullptr) return std::nullopt;
  const size_t channel = static_cast<size_t>(command[1] - row->firstCode);
  unsigned char& param = card.params[row->firstParam + channel];
  if (row->action == ACTION::kReboot) Boot(card);
  if (row->action == ACTION::kSet) param = command[2];
  const bool hasValue = row->action == ACTION::kSet || row->action == ACTION::kGet;
  const unsigned char answer = card.answer.value_or(hasValue ? param : 0);
  std::string line = "direct " + AddressText(card) + ' ' + row->word;
  if (row->count > 1) line += std::to_string(channel);
  if (row->action == ACTION::kSet) line += '=' + HexText({param});
  if (row->action == ACTION::kGet) line += "? " + HexText({answer});
  out->Print(line);
  return answer;
}

#include "cardsim/direct_commands.h"

#include <algorithm>

namespace cardsim {

namespace {

constexpr unsigned char kWrite = 0x01;
constexpr unsigned char kRead = 0x40;
constexpr unsigned char kAnyKind = 0x00;

struct DIRECT_COMMAND {
  unsigned char kind;
  unsigned char access;
  unsigned char firstCode;  // the row covers `count` codes, one a channel
  unsigned char count;
  const char* word;
  size_t firstParam;
  bool hasValue;  // a value byte follows the command byte
  // Carries it out on the given parameter; returns the value byte of the answer.
  unsigned char (*run)(CARD& card, const std::string& name, size_t param, unsigned char value,
                       LINES* lines);
};

void Tell(const CARD& card, const std::string& what, LINES* lines) {
  lines->push_back("direct " + AddressText(card) + ' ' + what);
}

unsigned char Set(CARD& card, const std::string& name, size_t param, unsigned char value,
                  LINES* lines) {
  card.params[param] = value;
  Tell(card, name + '=' + HexByte(value), lines);
  return value;
}

// For parameters that have no store command of their own: they must outlive a reboot at once.
unsigned char SetAndStore(CARD& card, const std::string& name, size_t param, unsigned char value,
                          LINES* lines) {
  card.storedParams[param] = value;
  return Set(card, name, param, value, lines);
}

unsigned char Get(CARD& card, const std::string& name, size_t param, unsigned char, LINES* lines) {
  const unsigned char value = card.answer.value_or(card.params[param]);
  Tell(card, name + "? " + HexByte(value), lines);
  return value;
}

unsigned char StoreParams(CARD& card, const std::string& name, size_t, unsigned char,
                          LINES* lines) {
  card.storedParams = card.params;
  Tell(card, name, lines);
  return 0;
}

unsigned char StoreOutputs(CARD& card, const std::string& name, size_t, unsigned char,
                           LINES* lines) {
  card.storedOutputs = card.outputs;
  Tell(card, name, lines);
  return 0;
}

unsigned char MoveToStored(CARD& card, const std::string& name, size_t, unsigned char,
                           LINES* lines) {
  Tell(card, name, lines);
  const BYTES positions(card.storedOutputs.begin(), card.storedOutputs.end());
  card.kind->receive(card, positions, lines);
  return 0;
}

unsigned char Reboot(CARD& card, const std::string& name, size_t, unsigned char, LINES* lines) {
  Boot(card);
  Tell(card, name, lines);
  ShowDisplay(card, lines);
  return 0;
}

constexpr unsigned char kServo = 0x05;
constexpr unsigned char kMotor = 0x06;
constexpr unsigned char kAnalog = 0x07;
constexpr unsigned char kLcd = 0x09;

constexpr DIRECT_COMMAND kCommands[] = {
    {kAnyKind, kWrite, 0xAB, 1, "reboot", 0, false, Reboot},
    {kLcd, kWrite, 0x01, 1, "selftest", kLcdSelfTestParam, true, SetAndStore},
    {kLcd, kWrite, 0x02, 1, "initlight", kLcdInitLightParam, true, SetAndStore},
    {kAnalog, kWrite, 0x01, 1, "mask", 0, true, Set},
    {kAnalog, kWrite, 0x02, 1, "store mask", 0, false, StoreParams},
    {kAnalog, kRead, 0x01, 1, "mask", 0, false, Get},
    {kServo, kWrite, 0x74, 1, "store positions", 0, false, StoreOutputs},
    {kServo, kWrite, 0x3F, 1, "move to stored positions", 0, false, MoveToStored},
    {kServo, kWrite, 0xC0, 6, "SCA", 0, true, SetAndStore},
    {kServo, kWrite, 0xD0, 6, "SCB", 6, true, SetAndStore},
    {kServo, kRead, 0x21, 6, "SCA", 0, false, Get},
    {kServo, kRead, 0x27, 6, "SCB", 6, false, Get},
    {kMotor, kWrite, 0xC0, 3, "MSR", 0, true, Set},
    {kMotor, kWrite, 0xCD, 1, "store MSR", 0, false, StoreParams},
    {kMotor, kRead, 0x01, 3, "MSR", 0, false, Get},
};

struct FACTORY_PARAMS {
  unsigned char kind;
  CARD::PARAMS params;
};

constexpr FACTORY_PARAMS kFactoryParams[] = {
    {kServo, {0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
    {kMotor, {0x08, 0x08, 0x08}},
    {kAnalog, {0x3F}},
    {kLcd, {0xFF, 0xFF}},
};

bool Fits(const DIRECT_COMMAND& row, const CARD& card, const BYTES& command) {
  return (row.kind == kAnyKind || row.kind == card.code) && row.access == command[0] &&
         command[1] >= row.firstCode && command[1] < row.firstCode + row.count &&
         command.size() == (row.hasValue ? 3U : 2U);
}

std::string NameOf(const DIRECT_COMMAND& row, size_t channel) {
  return row.count == 1 ? row.word : row.word + std::to_string(channel);
}

}  // namespace

CARD::PARAMS FactoryParams(unsigned char code) {
  for (const FACTORY_PARAMS& row : kFactoryParams) {
    if (row.kind == code) return row.params;
  }
  return {};
}

std::optional<unsigned char> RunDirectCommand(CARD& card, const BYTES& command, LINES* lines) {
  if (command.size() < 2) return std::nullopt;
  for (const DIRECT_COMMAND& row : kCommands) {
    if (!Fits(row, card, command)) continue;
    const size_t channel = static_cast<size_t>(command[1] - row.firstCode);
    const unsigned char value = row.hasValue ? command[2] : static_cast<unsigned char>(0);
    const unsigned char answer =
        row.run(card, NameOf(row, channel), row.firstParam + channel, value, lines);
    return card.answer.value_or(answer);
  }
  return std::nullopt;
}

std::string ParamsText(const CARD& card) {
  std::string text;
  for (const DIRECT_COMMAND& row : kCommands) {
    if (row.kind != card.code || !row.hasValue) continue;
    for (size_t channel = 0; channel < row.count; ++channel) {
      text += ' ' + NameOf(row, channel) + '=' + HexByte(card.params[row.firstParam + channel]);
    }
  }
  return text;
}

}  // namespace cardsim

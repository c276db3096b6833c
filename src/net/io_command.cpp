#include "net/io_command.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>

#include "bus/frame.h"

namespace {

// The longest payload of an output command, enough for an IR stream of 34 bytes or an LCD text of
// 31 characters. A command that needs a longer one is illegal.
constexpr std::size_t kMaxOutputPayload = 38;

constexpr char kLcdTextCode = 0x09;

// Positions of the fields in a command.
constexpr std::size_t kStartAt = 0;
constexpr std::size_t kAddressAt = 1;
constexpr std::size_t kFormAt = 2;
constexpr std::size_t kBlockAt = 3;
constexpr std::size_t kBlockMarkAt = 4;
constexpr std::size_t kBlockDataAt = 5;
constexpr std::size_t kStreamAt = 3;
constexpr std::size_t kIrBytesAt = 5;
constexpr std::size_t kColumnAt = 6;
constexpr std::size_t kLineAt = 8;
constexpr std::size_t kTextAt = 11;

bool CharIs(const std::string& text, std::size_t position, char c) {
  return position < text.size() && text[position] == c;
}

char CharAt(const std::string& text, std::size_t position) {
  return position < text.size() ? text[position] : '0';
}

int DigitAt(const std::string& text, std::size_t position) {
  return HexCharToByte(CharAt(text, position));
}

char ByteAt(const std::string& text, std::size_t position) {
  return static_cast<char>(HexNum2Byte(CharAt(text, position), CharAt(text, position + 1)));
}

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

bool StreamStartsWith(const std::string& command, const char* two) {
  return command.compare(kStreamAt, 2, two) == 0;
}

// Command code, address, a count of the data bytes, the data bytes.
BYTE_LIST OutputPayload(int address, const std::string& data) {
  BYTE_LIST payload = {kSetOutputsCommand, static_cast<char>(address),
                       static_cast<char>(data.size())};
  payload.insert(payload.end(), data.begin(), data.end());
  return payload;
}

// A legal request with `data`, or an illegal one if it does not fit.
IO_REQUEST StreamRequest(int address, const std::string& data) {
  IO_REQUEST request = {true, address, OutputPayload(address, data)};
  if (request.payload.size() > kMaxOutputPayload) return {false, address, {}};
  return request;
}

// The block form, "aAbBdDD". A frame always carries the card's first blocks. A higher block is only
// stored in the record.
IO_REQUEST BlockRequest(const std::string& command, int address, PERIFCARD* card) {
  card->blockState[DigitAt(command, kBlockAt)] = ByteOf(ByteAt(command, kBlockDataAt));
  const int blocks = CardKindOf(card->kindCode).outputBlocks;
  if (blocks == 0) return {true, address, {}};
  const std::string states(card->blockState, card->blockState + blocks);
  return {true, address, OutputPayload(address, states)};
}

// The IR stream, "aAsHSH1H2..Hn". A trailing odd digit is ignored.
IO_REQUEST IrRequest(const std::string& command, int address, PERIFCARD*) {
  if (!StreamStartsWith(command, "HS")) return {false, address, {}};
  const std::size_t count = (command.size() - kIrBytesAt) / 2;
  std::string data(1, static_cast<char>(count));
  for (std::size_t i = 0; i < count; ++i) data.push_back(ByteAt(command, kIrBytesAt + 2 * i));
  return StreamRequest(address, data);
}

// LCD control, "aAlCL" and the like. The code of a pair of characters is its index in the table.
IO_REQUEST LcdControlRequest(const std::string& command, int address, PERIFCARD*) {
  static constexpr const char* kControls[] = {"CL", "LO", "LF", "CO", "CF", "BO", "BF"};
  const auto* const control =
      std::find_if(std::begin(kControls), std::end(kControls),
                   [&](const char* two) { return StreamStartsWith(command, two); });
  if (control == std::end(kControls)) return {false, address, {}};
  return StreamRequest(address, std::string(1, static_cast<char>(control - kControls)));
}

// LCD text, "aAlPApXXYYtTEXT". The text's terminating NUL is part of the payload.
IO_REQUEST LcdTextRequest(const std::string& command, int address, PERIFCARD*) {
  std::string data(1, kLcdTextCode);
  data.push_back(ByteAt(command, kColumnAt));
  data.push_back(ByteAt(command, kLineAt));
  if (command.size() > kTextAt) data += command.substr(kTextAt);
  data.push_back('\0');
  return StreamRequest(address, data);
}

bool HasForm(const std::string& command, char form) {
  return CharIs(command, kStartAt, 'a') && CharIs(command, kFormAt, form);
}

bool IsBlock(const std::string& command) {
  return HasForm(command, 'b') && CharIs(command, kBlockMarkAt, 'd');
}

bool IsIr(const std::string& command) { return HasForm(command, 's') && Contains(command, "HS"); }

bool IsLcdControl(const std::string& command) {
  return HasForm(command, 'l') && !Contains(command, "PAp");
}

bool IsLcdText(const std::string& command) {
  return HasForm(command, 'l') && Contains(command, "PAp");
}

struct IO_FORM {
  bool (*matches)(const std::string& command);
  std::optional<KIND_CODE> kind;  // none: the form is for every kind
  IO_REQUEST (*build)(const std::string& command, int address, PERIFCARD* card);
};

// Only the first form that matches is tried.
constexpr IO_FORM kForms[] = {
    {IsBlock, std::nullopt, BlockRequest},
    {IsIr, kKindIrRemote, IrRequest},
    {IsLcdControl, kKindLcd, LcdControlRequest},
    {IsLcdText, kKindLcd, LcdTextRequest},
};

}  // namespace

std::vector<std::string> SplitCommands(const std::string& text, const std::string& separator) {
  std::vector<std::string> commands;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t found = separator.empty() ? std::string::npos : text.find(separator, start);
    const std::size_t end = std::min(found, text.size());
    if (end > start) commands.push_back(text.substr(start, end - start));
    start = end + separator.size();
    if (found == std::string::npos) break;
  }
  return commands;
}

IO_REQUEST ParseIoCommand(const std::string& command, PERIFCARD* cards) {
  const int address = DigitAt(command, kAddressAt);
  PERIFCARD* const card = &cards[address];
  for (const IO_FORM& form : kForms) {
    if (!form.matches(command)) continue;
    if (form.kind && card->kindCode != *form.kind) break;
    return form.build(command, address, card);
  }
  return {false, address, {}};
}

#include "cardsim/card.h"

#include <algorithm>
#include <iterator>

#include "cardsim/direct_commands.h"

namespace cardsim {

namespace {

std::string TakeBlocks(CARD& card, const BYTES& data) {
  if (data.size() != card.kind->outputBytes) {
    return "this card takes " + std::to_string(card.kind->outputBytes) + " output bytes";
  }
  std::copy(data.begin(), data.end(), card.outputs.begin());
  return {};
}

std::string OutPrefix(const CARD& card) {
  return "out " + AddressText(card) + ' ' + card.kind->word;
}

std::string ReceiveBits(CARD& card, const BYTES& data, LINES* lines) {
  std::string refusal = TakeBlocks(card, data);
  if (!refusal.empty()) return refusal;
  lines->push_back(OutPrefix(card) + " b0=" + HexByte(data[0]) + " b1=" + HexByte(data[1]));
  return {};
}

std::string ReceiveChannels(CARD& card, const BYTES& data, LINES* lines) {
  std::string refusal = TakeBlocks(card, data);
  if (refusal.empty()) lines->push_back(OutPrefix(card) + ' ' + HexText(data));
  return refusal;
}

std::string ReceiveAnything(CARD& card, const BYTES& data, LINES* lines) {
  lines->push_back(OutPrefix(card) + ' ' + HexText(data));
  return {};
}

struct LCD_CONTROL {
  const char* text;
  bool LCD_DISPLAY::*property;  // null: clear the display
  bool value;
};

// Indexed by the control code.
constexpr LCD_CONTROL kLcdControls[] = {
    {"clear", nullptr, false},
    {"backlight on", &LCD_DISPLAY::backlight, true},
    {"backlight off", &LCD_DISPLAY::backlight, false},
    {"cursor on", &LCD_DISPLAY::cursor, true},
    {"cursor off", &LCD_DISPLAY::cursor, false},
    {"blinking on", &LCD_DISPLAY::blinking, true},
    {"blinking off", &LCD_DISPLAY::blinking, false},
};
constexpr unsigned char kLcdText = 0x09;

std::string ReceiveLcdText(CARD& card, const BYTES& data, LINES* lines) {
  if (data.size() < 4 || data.back() != 0) return "LCD text needs column, row and a closing 00";
  const size_t column = data[1];
  const size_t row = data[2];
  const std::string text(data.begin() + 3, std::find(data.begin() + 3, data.end(), 0));
  card.display.Write(column, row, text);
  lines->push_back("lcd " + AddressText(card) + " text " + std::to_string(column) + ',' +
                   std::to_string(row) + ' ' + Quoted(text));
  ShowDisplay(card, lines);
  return {};
}

std::string ReceiveLcd(CARD& card, const BYTES& data, LINES* lines) {
  if (data.empty()) return "no LCD code";
  if (data[0] == kLcdText) return ReceiveLcdText(card, data, lines);
  if (data[0] >= std::size(kLcdControls) || data.size() != 1) return "unknown LCD code";
  const LCD_CONTROL& control = kLcdControls[data[0]];
  if (control.property == nullptr) {
    card.display.Clear();
  } else {
    card.display.*control.property = control.value;
  }
  lines->push_back("lcd " + AddressText(card) + ' ' + control.text);
  return {};
}

std::string ReceiveIr(CARD& card, const BYTES& data, LINES* lines) {
  if (data.empty() || data[0] != data.size() - 1) return "IR count and bytes differ";
  std::string line = "ir " + AddressText(card) + ' ';
  if (data.size() > 1) line += HexText(data.data() + 1, data.size() - 1) + ' ';
  lines->push_back(line + Quoted(std::string(data.begin() + 1, data.end())));
  return {};
}

constexpr CARD_KIND kKinds[] = {
    {0x03, "dout", "16 digital outputs", 0, 2, 0xFF, false, ReceiveBits},
    {0x04, "din", "16 digital inputs (blocks 0 and 1)", 2, 0, 0, false, nullptr},
    {0x05, "servo", "6 RC servos", 0, 6, 0x80, false, ReceiveChannels},
    {0x06, "motor", "3 DC motors with a control byte", 0, 4, 0, false, ReceiveChannels},
    {0x07, "analog", "6 analogue inputs (blocks 0 to 5)", 6, 0, 0, false, nullptr},
    {0x08, "keypad", "keypad matrix and rotary encoder (block 0)", 1, 0, 0, false, nullptr},
    {0x09, "lcd", "text display, 4 rows of 20", 0, 0, 0, true, ReceiveLcd},
    {0x0A, "ir", "infrared remote control", 0, 0, 0, false, ReceiveIr},
    {0xFF, "unknown", "a card that does not tell its kind", 0, 0, 0, false, ReceiveAnything},
};
constexpr const CARD_KIND& kUnknownKind = kKinds[std::size(kKinds) - 1];

const CARD_KIND* FindKind(unsigned char code) {
  if (code == 0) return nullptr;
  const auto* row = std::find_if(std::begin(kKinds), std::end(kKinds),
                                 [code](const CARD_KIND& kind) { return kind.code == code; });
  return row == std::end(kKinds) ? &kUnknownKind : row;
}

}  // namespace

void PlugIn(CARD& card, unsigned char code) {
  const unsigned char address = card.address;
  card = CARD{};
  card.address = address;
  card.code = code;
  card.kind = FindKind(code);
  if (card.kind == nullptr) return;
  card.storedOutputs.fill(card.kind->bootLevel);
  card.storedParams = FactoryParams(code);
  Boot(card);
}

void Boot(CARD& card) {
  card.outputs.fill(card.kind->bootLevel);
  card.params = card.storedParams;
  card.display = LCD_DISPLAY{};
  if (!card.kind->hasDisplay) return;
  card.display.backlight = card.params[kLcdInitLightParam] != 0;
  if (card.params[kLcdSelfTestParam] != 0) card.display.Write(0, 0, "SELF TEST");
}

std::optional<unsigned char> ParseKind(const std::string& text) {
  if (text == "none") return static_cast<unsigned char>(0);
  for (const CARD_KIND& kind : kKinds) {
    if (text == kind.word) return kind.code;
  }
  return ParseHexByte(text);
}

std::string KindWords() {
  std::string words;
  for (const CARD_KIND& kind : kKinds)
    words += (words.empty() ? "" : ", ") + std::string(kind.word);
  return words;
}

std::string KindHelp() {
  constexpr size_t kWordWidth = 9;
  std::string help;
  for (const CARD_KIND& kind : kKinds) {
    std::string word = kind.word;
    word.resize(kWordWidth, ' ');
    help += "  " + word + kind.title + '\n';
  }
  return help;
}

std::string AddressText(const CARD& card) { return HexByte(card.address).substr(1); }

void ShowDisplay(const CARD& card, LINES* lines) {
  if (!card.kind->hasDisplay) return;
  for (size_t row = 0; row < LCD_DISPLAY::kRows; ++row) {
    lines->push_back("lcd " + AddressText(card) + " row " + std::to_string(row) + " |" +
                     card.display.Row(row) + '|');
  }
}

}  // namespace cardsim

#include "cardsim/card.h"

#include <algorithm>
#include <iterator>

#include "cardsim/table.h"

namespace {

constexpr size_t kDisplayColumns = 20;

std::string BlocksText(const char* label, const CARD::BLOCKS& blocks, size_t count) {
  return count == 0 ? "" : label + HexText({blocks.begin(), blocks.begin() + count});
}

// Digital outputs are bits, so each block is shown by its number; channels stand in their order.
bool ReceiveBlocks(CARD& card, const BYTES& data, LINE_OUTPUT* out) {
  if (data.size() != card.kind->outputs) return false;
  std::copy(data.begin(), data.end(), card.outputs.begin());
  const std::string blocks = card.code == kDigitalOutput
                                 ? "b0=" + HexText({data[0]}) + " b1=" + HexText({data[1]})
                                 : HexText(data);
  out->Print("out " + AddressText(card) + ' ' + card.kind->name + ' ' + blocks);
  return true;
}

// Indexed by the control code.
constexpr const char* kLcdControls[] = {
    "clear",      "backlight on", "backlight off", "cursor on",
    "cursor off", "blinking on",  "blinking off",
};
constexpr unsigned char kLcdClear = 0x00;
constexpr unsigned char kLcdText = 0x09;

void ClearDisplay(CARD& card) { card.display.fill(std::string(kDisplayColumns, ' ')); }

void ShowDisplay(const CARD& card, LINE_OUTPUT* out) {
  for (size_t row = 0; row < card.display.size(); ++row) {
    out->Print("lcd " + AddressText(card) + " row " + std::to_string(row) + " |" +
               Printable(card.display[row]) + '|');
  }
}

// What passes the end of the row is not shown, nor is anything at a place off the display.
bool ReceiveLcdText(CARD& card, const BYTES& data, LINE_OUTPUT* out) {
  if (data.size() < 4 || data.back() != 0) return false;
  const size_t column = data[1];
  const size_t row = data[2];
  const std::string text(data.begin() + 3, data.end() - 1);
  if (column < kDisplayColumns && row < card.display.size()) {
    const size_t shown = std::min(text.size(), kDisplayColumns - column);
    card.display[row].replace(column, shown, text, 0, shown);
  }
  out->Print("lcd " + AddressText(card) + " text " + std::to_string(column) + ',' +
             std::to_string(row) + " \"" + Printable(text) + '"');
  ShowDisplay(card, out);
  return true;
}

bool ReceiveLcd(CARD& card, const BYTES& data, LINE_OUTPUT* out) {
  if (!data.empty() && data[0] == kLcdText) return ReceiveLcdText(card, data, out);
  if (data.size() != 1 || data[0] >= std::size(kLcdControls)) return false;
  if (data[0] == kLcdClear) ClearDisplay(card);
  out->Print("lcd " + AddressText(card) + ' ' + kLcdControls[data[0]]);
  return true;
}

bool ReceiveIr(CARD& card, const BYTES& data, LINE_OUTPUT* out) {
  if (data.empty() || data[0] != data.size() - 1) return false;
  const BYTES sent(data.begin() + 1, data.end());
  const std::string text(sent.begin(), sent.end());
  out->Print("ir " + AddressText(card) + ' ' + (sent.empty() ? "" : HexText(sent) + ' ') + '"' +
             Printable(text) + '"');
  return true;
}

constexpr CARD_KIND kKinds[] = {
    {kDigitalOutput, "dout", 0, 2, 0xFF, ReceiveBlocks},
    {0x04, "din", 2, 0, 0x00, nullptr},
    {kServo, "servo", 0, 6, 0x80, ReceiveBlocks},
    {kMotor, "motor", 0, 4, 0x00, ReceiveBlocks},
    {kAnalogue, "analog", 6, 0, 0x00, nullptr},
    {0x08, "keypad", 1, 0, 0x00, nullptr},
    {kLcd, "lcd", 0, 0, 0x00, ReceiveLcd},
    {0x0A, "ir", 0, 0, 0x00, ReceiveIr},
    {0xFF, "unknown", 0, 0, 0x00, nullptr},  // also stands for codes without a row
};

const CARD_KIND* FindKind(unsigned char code) {
  const auto* const row = std::find_if(std::begin(kKinds), std::end(kKinds) - 1,
                                       [code](const CARD_KIND& kind) { return kind.code == code; });
  return code == 0 ? nullptr : row;
}

}  // namespace

void PlugIn(CARD& card, unsigned char code) {
  card = CARD{card.address, code, FindKind(code)};
  if (card.kind != nullptr) Boot(card);
}

void Boot(CARD& card) {
  card.outputs.fill(card.kind->bootLevel);
  ClearDisplay(card);
}

std::optional<unsigned char> ParseKind(const std::string& text) {
  const CARD_KIND* const kind = FindRow(kKinds, text);
  if (text == "none") return static_cast<unsigned char>(0);
  return kind == nullptr ? ParseHex(text, 2) : kind->code;
}

std::string KindWords() { return RowNames(kKinds); }

std::string AddressText(const CARD& card) { return HexText({card.address}).substr(1); }

void ShowCard(const CARD& card, LINE_OUTPUT* out) {
  if (card.kind == nullptr) return;
  std::string line = "card " + AddressText(card) + ' ' + card.kind->name;
  if (card.code != card.kind->code) line += " code " + HexText({card.code});
  line += BlocksText(" in ", card.inputs, card.kind->inputs);
  line += BlocksText(" out ", card.outputs, card.kind->outputs);
  if (card.answer) line += " answer " + HexText({*card.answer});
  out->Print(line);
  if (card.kind->receive == ReceiveLcd) ShowDisplay(card, out);
}

#include "cardsim/lcd_display.h"

#include <algorithm>

namespace cardsim {

void LCD_DISPLAY::Clear() {
  rows_.fill(std::string(kColumns, ' '));
  cursorColumn_ = 0;
  cursorRow_ = 0;
}

void LCD_DISPLAY::Write(size_t column, size_t row, const std::string& text) {
  if (column >= kColumns || row >= kRows) return;
  const size_t shown = std::min(text.size(), kColumns - column);
  rows_[row].replace(column, shown, text, 0, shown);
  cursorColumn_ = std::min(column + shown, kColumns - 1);
  cursorRow_ = row;
}

std::string LCD_DISPLAY::Row(size_t row) const {
  std::string seen = rows_[row];
  for (char& c : seen) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7F) c = '.';
  }
  if (cursor && row == cursorRow_ && seen[cursorColumn_] == ' ') seen[cursorColumn_] = '_';
  return seen;
}

}  // namespace cardsim

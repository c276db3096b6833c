#ifndef CARDSIM_LCD_DISPLAY_H
#define CARDSIM_LCD_DISPLAY_H

#include <array>
#include <cstddef>
#include <string>

namespace cardsim {

// A text display of four rows of twenty characters.
class LCD_DISPLAY {
 public:
  static constexpr size_t kColumns = 20;
  static constexpr size_t kRows = 4;

  LCD_DISPLAY() { Clear(); }

  // Blanks every row and takes the cursor home.
  void Clear();

  // Writes text from the given position on and leaves the cursor behind it. What passes the end
  // of the row is lost; a position off the display shows nothing and leaves the cursor alone.
  void Write(size_t column, size_t row, const std::string& text);

  // The row as a viewer sees it: bytes that are no printable ASCII show as '.', and a cursor that
  // is switched on shows as '_' in a blank cell. The row must be below kRows.
  std::string Row(size_t row) const;

  bool backlight = false;
  bool cursor = false;
  bool blinking = false;

 private:
  std::array<std::string, kRows> rows_;
  size_t cursorColumn_ = 0;
  size_t cursorRow_ = 0;
};

}  // namespace cardsim

#endif

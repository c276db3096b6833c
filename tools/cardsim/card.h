#ifndef CARDSIM_CARD_H
#define CARDSIM_CARD_H

#include <array>
#include <optional>
#include <string>

#include "cardsim/bytes.h"
#include "cardsim/lcd_display.h"

namespace cardsim {

struct CARD;

struct CARD_KIND {
  unsigned char code;  // as the discovery answer reports it
  const char* word;    // as people type it and output lines show it
  const char* title;
  size_t inputBytes;        // bytes of its poll answer, 0 for a card without inputs
  size_t outputBytes;       // bytes of one output frame, 0 where it is a stream or there is none
  unsigned char bootLevel;  // what each output byte holds after power-up
  bool hasDisplay;
  // Takes the data of one output frame and appends what it did. Returns why it refuses the data,
  // or an empty text. Null for a card without outputs.
  std::string (*receive)(CARD& card, const BYTES& data, LINES* lines);
};

// One slot of the bus with what its card remembers. Values held in stored... survive a reboot.
struct CARD {
  static constexpr size_t kMostChannels = 6;
  static constexpr size_t kMostParams = 12;
  using CHANNELS = std::array<unsigned char, kMostChannels>;
  using PARAMS = std::array<unsigned char, kMostParams>;

  unsigned char address = 0;
  unsigned char code = 0;
  const CARD_KIND* kind = nullptr;  // null for an empty slot
  CHANNELS inputs{};
  CHANNELS outputs{};
  CHANNELS storedOutputs{};
  PARAMS params{};
  PARAMS storedParams{};
  std::optional<unsigned char> answer;  // the value byte of every direct answer, when set by hand
  LCD_DISPLAY display;
};

// Puts a factory-new card of the kind code into the slot; code 0 empties the slot.
void PlugIn(CARD& card, unsigned char code);

// Starts the card from what it has stored.
void Boot(CARD& card);

// A kind's word, "none", or any code as two hexadecimal digits; nothing for other text.
std::optional<unsigned char> ParseKind(const std::string& text);

// "dout, din, ..." for messages and help, and the kinds with their titles, one a line.
std::string KindWords();
std::string KindHelp();

// The slot's address as one hexadecimal digit.
std::string AddressText(const CARD& card);

// The lines "lcd E row 0 |...|" of the card's display; none for a card without one.
void ShowDisplay(const CARD& card, LINES* lines);

}  // namespace cardsim

#endif

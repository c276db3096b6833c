#ifndef TALP_TOOLS_CARDSIM_CARD_H_
#define TALP_TOOLS_CARDSIM_CARD_H_

#include <array>
#include <optional>
#include <string>

#include "cardsim/bytes.h"
#include "cardsim/line_output.h"

// Codes of the kinds that differ from others in more than a row of a table.
constexpr unsigned char kDigitalOutput = 0x03;
constexpr unsigned char kServo = 0x05;
constexpr unsigned char kMotor = 0x06;
constexpr unsigned char kAnalogue = 0x07;
constexpr unsigned char kLcd = 0x09;

struct CARD;

struct CARD_KIND {
  unsigned char code;       // as the discovery answer reports it
  const char* name;         // as people type it and output lines show it
  size_t inputs;            // blocks of a poll answer, 0 for a card without inputs
  size_t outputs;           // blocks of an output frame, 0 where it is a stream or there is none
  unsigned char bootLevel;  // what each output block holds after power-up
  // Takes the data of an output frame and prints what it did. False: the card refuses the data.
  // Null for a card without outputs.
  bool (*receive)(CARD& card, const BYTES& data, LINE_OUTPUT* out);
};

// One slot of the bus with what its card remembers.
struct CARD {
  static constexpr size_t kMostChannels = 6;
  static constexpr size_t kDisplayRows = 4;
  using BLOCKS = std::array<unsigned char, kMostChannels>;

  unsigned char address = 0;
  unsigned char code = 0;
  const CARD_KIND* kind = nullptr;  // null for an empty slot
  BLOCKS inputs{};
  BLOCKS outputs{};
  std::array<std::string, kDisplayRows> display{};
  std::array<unsigned char, 2 * kMostChannels> params{};  // what direct commands set and read
  std::optional<unsigned char> answer{};  // the value byte of every direct answer, when set by hand
};

// Puts a new card of the kind code into the slot; code 0 empties the slot.
void PlugIn(CARD& card, unsigned char code);

// Sets outputs and display to what they are after power-up. The parameters stay.
void Boot(CARD& card);

// A kind's word, "none", or any code as two hexadecimal digits; nothing for other text.
std::optional<unsigned char> ParseKind(const std::string& text);

// "dout, din, ...".
std::string KindWords();

// The slot's address as one hexadecimal digit.
std::string AddressText(const CARD& card);

// Carries out one direct command, given as what follows the card's address: an access byte (01
// writes, 40 reads), a command byte and, where the command has one, a value byte. Prints one line
// and returns the value byte of the answer, or nothing when the card knows no such command.
std::optional<unsigned char> RunDirectCommand(CARD& card, const BYTES& command, LINE_OUTPUT* out);

// Prints what the card in the slot holds; nothing for an empty slot.
void ShowCard(const CARD& card, LINE_OUTPUT* out);

#endif  // TALP_TOOLS_CARDSIM_CARD_H_

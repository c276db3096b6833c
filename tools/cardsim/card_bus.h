#ifndef TALP_TOOLS_CARDSIM_CARD_BUS_H_
#define TALP_TOOLS_CARDSIM_CARD_BUS_H_

#include <array>
#include <optional>
#include <string>

#include "cardsim/bytes.h"
#include "cardsim/card.h"
#include "cardsim/line_output.h"

// The first byte of a request.
constexpr unsigned char kHandshake = 0x40;
constexpr unsigned char kDiscovery = 0x30;
constexpr unsigned char kPoll = 0x20;
constexpr unsigned char kOutput = 0x10;
constexpr unsigned char kDirect = 0x50;

// The first byte of a reply; to the handshake it is that of the request.
constexpr unsigned char kDiscovered = 0x31;
constexpr unsigned char kInputs = 0x21;
constexpr unsigned char kDone = 0x41;  // to an output: any that is no error would do
constexpr unsigned char kValue = 0x51;
constexpr unsigned char kRefused = 0x4E;

// The bus controller and its sixteen cards: a request payload in, a reply payload and readable
// lines out. No clock; faults and framing are other modules'.
class CARD_BUS {
 public:
  static constexpr size_t kSlots = 16;

  // versionText: the four characters of the handshake answer.
  CARD_BUS(std::string versionText, LINE_OUTPUT* out);

  // The slot of an address; the address must be below kSlots.
  CARD& Slot(size_t address) { return cards_[address]; }

  // The card at an address; null where there is none.
  CARD* FindCard(size_t address);

  // Answers one request; both without their length byte. What a card cannot do is answered kRefused
  // and the address byte. What the bus does not know is not answered at all.
  std::optional<BYTES> Answer(const BYTES& request);

  // Prints what every card holds.
  void Show() const;

 private:
  BYTES Refuse(const BYTES& request, bool hasCard);

  const std::string versionText_;
  LINE_OUTPUT* const out_;
  std::array<CARD, kSlots> cards_;
};

#endif  // TALP_TOOLS_CARDSIM_CARD_BUS_H_

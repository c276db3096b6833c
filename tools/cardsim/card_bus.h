#ifndef CARDSIM_CARD_BUS_H
#define CARDSIM_CARD_BUS_H

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

  // Answers one request; both without their length byte. What a card cannot do is answered 'N'
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

#endif

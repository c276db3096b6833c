#ifndef CARDSIM_CARD_BUS_H
#define CARDSIM_CARD_BUS_H

#include <array>
#include <optional>
#include <string>

#include "cardsim/bytes.h"
#include "cardsim/card.h"

namespace cardsim {

// The requests of the bus; each also names a bit of a set of requests.
enum class REQUEST { kHandshake, kDiscovery, kPoll, kOutput, kDirect };

constexpr unsigned RequestBit(REQUEST request) { return 1U << static_cast<unsigned>(request); }

const char* RequestWord(REQUEST request);
std::optional<REQUEST> ParseRequest(const std::string& word);

struct ANSWER {
  REQUEST request;
  BYTES payload;  // without the length byte; never empty
};

// The bus controller and its sixteen cards: a request payload in, a reply payload and readable
// lines out. No descriptor, no clock; faults and framing are other modules'.
class CARD_BUS {
 public:
  static constexpr size_t kSlots = 16;

  // versionText: the four characters of the handshake answer.
  explicit CARD_BUS(std::string versionText);

  // The slot of an address; the address must be below kSlots.
  CARD& Slot(size_t address) { return cards_[address]; }

  // Answers one request, given without its length byte, and appends a line for what a card did
  // or refused. Refused requests of a card are answered 'N' and the address byte; what the
  // controller itself does not know is not answered at all, as by an adapter of another make.
  std::optional<ANSWER> Answer(const BYTES& payload, LINES* lines);

  // One line for each card, with what it holds.
  void Show(LINES* lines) const;

 private:
  struct REQUEST_ROW;
  static const REQUEST_ROW kRequests[];

  BYTES Handshake(const BYTES& payload, LINES* lines);
  BYTES Discover(const BYTES& payload, LINES* lines);
  BYTES Poll(const BYTES& payload, LINES* lines);
  BYTES Output(const BYTES& payload, LINES* lines);
  BYTES Direct(const BYTES& payload, LINES* lines);
  CARD* FindCard(const BYTES& payload);

  std::string versionText_;
  std::array<CARD, kSlots> cards_;
};

}  // namespace cardsim

#endif

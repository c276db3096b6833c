#include "cardsim/card_bus.h"

#include <utility>

namespace {

// A master that discovers twice sends the three poll bytes twice in one frame; the first three
// say it all.
BYTES Poll(const CARD& card, const BYTES& request) {
  const size_t count = request[2];
  if (count == 0 || count != card.kind->inputs) return {};
  BYTES reply = {kInputs, card.address};
  reply.insert(reply.end(), card.inputs.begin(), card.inputs.begin() + request[2]);
  return reply;
}

BYTES Output(CARD& card, const BYTES& request, LINE_OUTPUT* out) {
  const BYTES data(request.begin() + 3, request.end());
  if (card.kind->receive == nullptr || request[2] != data.size()) return {};
  if (!card.kind->receive(card, data, out)) return {};
  return {kDone, card.address};
}

BYTES Direct(CARD& card, const BYTES& request, LINE_OUTPUT* out) {
  const BYTES command(request.begin() + 2, request.end());
  const std::optional<unsigned char> value = RunDirectCommand(card, command, out);
  if (!value) return {};
  return {kValue, card.address, command[1], *value};
}

// Empty if the card refuses the request.
BYTES AnswerOf(CARD& card, const BYTES& request, LINE_OUTPUT* out) {
  if (request[0] == kPoll) return Poll(card, request);
  return request[0] == kOutput ? Output(card, request, out) : Direct(card, request, out);
}

bool IsForCard(const BYTES& request) {
  return request.size() >= 3 &&
         (request[0] == kPoll || request[0] == kOutput || request[0] == kDirect);
}

}  // namespace

CARD_BUS::CARD_BUS(std::string versionText, LINE_OUTPUT* out)
    : versionText_(std::move(versionText)), out_(out) {
  for (size_t i = 0; i < kSlots; ++i) cards_[i].address = static_cast<unsigned char>(i);
}

std::optional<BYTES> CARD_BUS::Answer(const BYTES& request) {
  BYTES reply;
  if (request == BYTES{kHandshake, 0x6F, 0x9A}) {
    reply = {kHandshake};
    reply.insert(reply.end(), versionText_.begin(), versionText_.end());
  } else if (request == BYTES{kDiscovery}) {
    reply = {kDiscovered};
    for (const CARD& card : cards_) reply.push_back(card.code);
  } else if (IsForCard(request)) {
    CARD* const card = FindCard(request[1]);
    if (card != nullptr) reply = AnswerOf(*card, request, out_);
    if (reply.empty()) reply = Refuse(request, card != nullptr);
  } else {
    out_->Print("ignored " + HexText(request));
    return std::nullopt;
  }
  return reply;
}

// Polls come hundreds of times a second, so they never print a line.
BYTES CARD_BUS::Refuse(const BYTES& request, bool hasCard) {
  if (request[0] != kPoll) {
    out_->Print("refused " + HexText(request) +
                (hasCard ? ": not for this card" : ": no card there"));
  }
  return {kRefused, request[1]};
}

CARD* CARD_BUS::FindCard(size_t address) {
  const bool taken = address < kSlots && cards_[address].kind != nullptr;
  return taken ? &cards_[address] : nullptr;
}

void CARD_BUS::Show() const {
  for (const CARD& card : cards_) ShowCard(card, out_);
}

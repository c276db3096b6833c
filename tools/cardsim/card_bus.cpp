#include "cardsim/card_bus.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "cardsim/direct_commands.h"

namespace cardsim {

namespace {

constexpr const char* kRequestWords[] = {"handshake", "discovery", "poll", "output", "direct"};

constexpr unsigned char kHandshakeRequest[] = {'@', 0x6F, 0x9A};

const char* OnOff(bool on) { return on ? "on" : "off"; }

// Requests of a card carry its address next to their code.
BYTES Refusal(const BYTES& payload) {
  BYTES reply = {'N'};
  if (payload.size() > 1) reply.push_back(payload[1]);
  return reply;
}

BYTES Refuse(const BYTES& payload, const std::string& why, LINES* lines) {
  lines->push_back("refused " + HexText(payload) + ": " + why);
  return Refusal(payload);
}

std::string CardText(const CARD& card) {
  std::string text = "card " + AddressText(card) + ' ' + card.kind->word;
  if (card.code != card.kind->code) text += " code=" + HexByte(card.code);
  if (card.kind->inputBytes > 0) {
    text += " in " + HexText(card.inputs.data(), card.kind->inputBytes);
  }
  if (card.kind->outputBytes > 0) {
    text += " out " + HexText(card.outputs.data(), card.kind->outputBytes);
  }
  text += ParamsText(card);
  if (card.kind->hasDisplay) {
    text += std::string(" backlight=") + OnOff(card.display.backlight) +
            " cursor=" + OnOff(card.display.cursor) + " blinking=" + OnOff(card.display.blinking);
  }
  if (card.answer) text += " answer=" + HexByte(*card.answer);
  return text;
}

}  // namespace

const char* RequestWord(REQUEST request) { return kRequestWords[static_cast<size_t>(request)]; }

std::optional<REQUEST> ParseRequest(const std::string& word) {
  for (size_t i = 0; i < std::size(kRequestWords); ++i) {
    if (word == kRequestWords[i]) return static_cast<REQUEST>(i);
  }
  return std::nullopt;
}

struct CARD_BUS::REQUEST_ROW {
  unsigned char code;
  REQUEST request;
  BYTES (CARD_BUS::*answer)(const BYTES& payload, LINES* lines);  // empty: no answer
};

const CARD_BUS::REQUEST_ROW CARD_BUS::kRequests[] = {
    {'@', REQUEST::kHandshake, &CARD_BUS::Handshake},
    {'0', REQUEST::kDiscovery, &CARD_BUS::Discover},
    {0x20, REQUEST::kPoll, &CARD_BUS::Poll},
    {0x10, REQUEST::kOutput, &CARD_BUS::Output},
    {0x50, REQUEST::kDirect, &CARD_BUS::Direct},
};

CARD_BUS::CARD_BUS(std::string versionText) : versionText_(std::move(versionText)) {
  for (size_t i = 0; i < kSlots; ++i) cards_[i].address = static_cast<unsigned char>(i);
}

std::optional<ANSWER> CARD_BUS::Answer(const BYTES& payload, LINES* lines) {
  for (const REQUEST_ROW& row : kRequests) {
    if (payload.empty() || payload[0] != row.code) continue;
    BYTES reply = (this->*row.answer)(payload, lines);
    if (reply.empty()) break;
    return ANSWER{row.request, std::move(reply)};
  }
  lines->push_back(payload.empty() ? "ignored an empty frame" : "ignored " + HexText(payload));
  return std::nullopt;
}

BYTES CARD_BUS::Handshake(const BYTES& payload, LINES*) {
  if (!std::equal(payload.begin(), payload.end(), std::begin(kHandshakeRequest),
                  std::end(kHandshakeRequest))) {
    return {};
  }
  BYTES reply = {'@'};
  reply.insert(reply.end(), versionText_.begin(), versionText_.end());
  return reply;
}

BYTES CARD_BUS::Discover(const BYTES& payload, LINES*) {
  if (payload.size() != 1) return {};
  BYTES reply = {'1'};
  for (const CARD& card : cards_) reply.push_back(card.code);
  return reply;
}

// A master that discovers twice sends the three poll bytes twice in one frame; the first three
// say it all. Polls come hundreds of times a second, so they never print a line.
BYTES CARD_BUS::Poll(const BYTES& payload, LINES*) {
  const CARD* card = FindCard(payload);
  if (card == nullptr || payload.size() < 3 || card->kind->inputBytes == 0 ||
      payload[2] != card->kind->inputBytes) {
    return Refusal(payload);
  }
  BYTES reply = {'!', card->address};
  reply.insert(reply.end(), card->inputs.begin(), card->inputs.begin() + payload[2]);
  return reply;
}

// The 'A' carries no meaning for the master but that the card has answered.
BYTES CARD_BUS::Output(const BYTES& payload, LINES* lines) {
  CARD* card = FindCard(payload);
  if (card == nullptr) return Refuse(payload, "no card there", lines);
  if (card->kind->receive == nullptr) return Refuse(payload, "the card has no outputs", lines);
  if (payload.size() < 3 || payload[2] != payload.size() - 3) {
    return Refuse(payload, "count and data differ", lines);
  }
  const std::string why =
      card->kind->receive(*card, BYTES(payload.begin() + 3, payload.end()), lines);
  if (!why.empty()) return Refuse(payload, why, lines);
  return {'A', card->address};
}

BYTES CARD_BUS::Direct(const BYTES& payload, LINES* lines) {
  CARD* card = FindCard(payload);
  if (card == nullptr) return Refuse(payload, "no card there", lines);
  const BYTES command(payload.begin() + 2, payload.end());
  const std::optional<unsigned char> value = RunDirectCommand(*card, command, lines);
  if (!value) return Refuse(payload, "the card knows no such command", lines);
  return {'Q', card->address, command[1], *value};
}

CARD* CARD_BUS::FindCard(const BYTES& payload) {
  if (payload.size() < 2 || payload[1] >= kSlots) return nullptr;
  CARD& card = cards_[payload[1]];
  return card.kind == nullptr ? nullptr : &card;
}

void CARD_BUS::Show(LINES* lines) const {
  for (const CARD& card : cards_) {
    if (card.kind == nullptr) continue;
    lines->push_back(CardText(card));
    ShowDisplay(card, lines);
  }
}

}  // namespace cardsim

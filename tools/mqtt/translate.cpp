#include "mqtt/translate.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "mqtt/names.h"
#include "net/client_framing.h"
#include "net/io_command.h"

namespace mqtt {

namespace {

using nlohmann::json;

std::string HexByte(unsigned value) {
  return {kHexDigits[value / 16 % 16], kHexDigits[value % 16]};
}

std::string CardText(const PLACE& place) {
  return std::string("a") + kHexDigits[static_cast<std::size_t>(place.address)];
}

LINES RawLine(const PLACE&, const std::string& payload, const CARD&) { return {payload}; }

LINES BlockLine(const PLACE& place, unsigned value, const CARD& card) {
  const bool fits = card.kind == nullptr || place.block < card.kind->outputBlocks;
  Require(fits, "no such output block there");
  return {InputLine(place.address, place.block, static_cast<unsigned char>(value))};
}

LINES SetBlock(const PLACE& place, const std::string& payload, const CARD& card) {
  const bool isNumber = !payload.empty() && payload.size() <= 3 &&
                        payload.find_first_not_of("0123456789") == std::string::npos;
  Require(isNumber && ATOL(payload) <= 255, "not a number from 0 to 255");
  return BlockLine(place, static_cast<unsigned>(ATOL(payload)), card);
}

// Outputs are low-active: 0 is on. A line sets all of a block, so the others must be known; those
// of a digital output card are taken for off at first.
LINES SetBit(const PLACE& place, const std::string& payload, const CARD& card) {
  Require(card.kind == nullptr || card.Is(kKindDigitalOutput), "no digital output there");
  Require(payload == "ON" || payload == "OFF", "neither ON nor OFF");
  const auto block = static_cast<std::size_t>(place.block);
  Require(card.blocks.at(block) || card.kind != nullptr,
          "the other outputs of the block are not known; send the block");
  const unsigned last = card.blocks[block].value_or(0xFF);
  const unsigned mask = 1U << place.bit;
  return BlockLine(place, payload == "ON" ? last & ~mask : last | mask, card);
}

// Key, and what is sent for true and for false.
constexpr const char* kLcdSwitches[][3] = {
    {"clear", "CL", ""}, {"light", "LO", "LF"}, {"cursor", "CO", "CF"}, {"blink", "BO", "BF"}};

std::string LcdPosition(const json& object, const char* key) {
  const double number = object.value(key, 0.0);
  Require(number >= 0 && number <= 255, "column and line are numbers from 0 to 255");
  return HexByte(static_cast<unsigned>(number));
}

LINES SetLcd(const PLACE& place, const std::string& payload, const CARD&) {
  const json object = json::parse(payload);
  Require(object.is_object(), "not a JSON object");
  const std::string start = CardText(place) + "l";
  std::size_t known = object.count("text") + object.count("column") + object.count("line");
  LINES lines;
  for (const auto& [key, on, off] : kLcdSwitches) {
    known += object.count(key);
    const std::string code = object.value(key, false) ? on : off;
    if (object.contains(key) && !code.empty()) lines.push_back(start + code);
  }
  Require(known == object.size(), "unknown key");
  if (!object.contains("text")) return lines;
  lines.push_back(start + "PAp" + LcdPosition(object, "column") + LcdPosition(object, "line") +
                  "t" + object["text"].get<std::string>());
  return lines;
}

// talp takes lower-case digits for 0.
LINES SendIr(const PLACE& place, const std::string& payload, const CARD&) {
  std::string digits = payload;
  for (char& c : digits) c = c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c;
  const bool areBytes = !digits.empty() && digits.size() % 2 == 0 &&
                        digits.find_first_not_of(kHexDigits) == std::string::npos;
  Require(areBytes, "not bytes of two hexadecimal digits each");
  return {CardText(place) + "sHS" + digits};
}

void CheckLine(const std::string& line, const CARDS& cards, const std::string& separator) {
  Require(line.find_first_of(std::string("\r\n\0", 3)) == std::string::npos &&
              (line + separator).find(separator) == line.size(),
          "it holds a line end");
  // A card whose kind is not known may be of the one that the line is for.
  const char form = line.size() > 2 ? line[2] : ' ';
  const KIND_CODE likely = form == 'l'   ? kKindLcd
                           : form == 's' ? kKindIrRemote
                                         : kKindDigitalOutput;
  PERIFCARD records[kAddressCount + 1];
  for (std::size_t i = 0; i < kAddressCount; ++i) {
    records[i].kindCode = cards[i].kind == nullptr ? likely : cards[i].kind->code;
  }
  const IO_REQUEST request = ParseIoCommand(line, records);
  Require(request.legal && !request.payload.empty(), "talp has nothing to send to a card for it");
}

// How many of address, block and bit the topic names, what follows them, and what it means.
struct ROUTE {
  int depth;
  const char* tail;
  LINES (*translate)(const PLACE&, const std::string&, const CARD&);
};

constexpr ROUTE kRoutes[] = {{0, "io/set", RawLine},
                             {1, "lcd/set", SetLcd},
                             {1, "ir/set", SendIr},
                             {2, "set", SetBlock},
                             {3, "set", SetBit}};

}  // namespace

LINES Translate(const std::string& path, const std::string& payload, const CARDS& cards,
                const std::string& separator) {
  Require(payload.size() <= kMostText, "too long");
  const PLACE place = PlaceOf(path);
  const int depth = place.bit >= 0 ? 3 : place.block >= 0 ? 2 : place.address >= 0 ? 1 : 0;
  for (const ROUTE& route : kRoutes) {
    if (route.depth != depth || route.tail != place.tail) continue;
    const CARD none;
    const CARD& card = place.address < 0 ? none : cards.at(static_cast<std::size_t>(place.address));
    LINES lines = route.translate(place, payload, card);
    Require(!lines.empty(), "it asks for nothing");
    std::size_t size = 0;
    for (const std::string& line : lines) {
      size += line.size() + separator.size();
      Require(size <= kClientReadSize, "longer than what talp reads at once");
      CheckLine(line, cards, separator);
    }
    return lines;
  }
  throw std::invalid_argument("unknown topic");
}

const CARD_KIND* KindNamed(const std::string& name) {
  for (int code = 0; code <= 0xFF; ++code) {
    const CARD_KIND& kind = CardKindOf(static_cast<unsigned char>(code));
    if (name == kind.name) return &kind;
  }
  return nullptr;
}

void Require(bool holds, const std::string& reason) {
  if (!holds) throw std::invalid_argument(reason);
}

}  // namespace mqtt

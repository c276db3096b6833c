#include <stdexcept>

#include "mqtt/node.h"
#include "net/io_command.h"

namespace mqtt {

namespace {

using nlohmann::json;
using PLACE = std::smatch;  // the whole path, then the digits of address, block and bit

std::string HexByte(unsigned value) {
  return {kHexDigits[value / 16 % 16], kHexDigits[value % 16]};
}

LINES RawLine(const PLACE&, const std::string& payload, const CARD&) { return {payload}; }

LINES BlockLine(const PLACE& place, unsigned value, const CARD& card) {
  const bool fits = card.kind == nullptr || std::stoi(place.str(2)) < card.kind->outputBlocks;
  Require(fits, "no such output block there");
  return {"a" + place.str(1) + "b" + place.str(2) + "d" + HexByte(value)};
}

LINES SetBlock(const PLACE& place, const std::string& payload, const CARD& card) {
  static const std::regex byte("[01]?[0-9]?[0-9]|2[0-4][0-9]|25[0-5]");
  Require(std::regex_match(payload.substr(0, 4), byte), "not a number from 0 to 255");
  return BlockLine(place, static_cast<unsigned>(ATOL(payload)), card);
}

// Outputs are low-active: 0 is on, and all are taken for off at first.
LINES SetBit(const PLACE& place, const std::string& payload, const CARD& card) {
  Require(card.kind == nullptr || card.Is(kKindDigitalOutput), "no digital output there");
  Require(payload == "ON" || payload == "OFF", "neither ON nor OFF");
  const unsigned last = card.blocks.at(std::stoul(place.str(2))).value_or(0xFF);
  const unsigned mask = 1U << std::stoul(place.str(3));
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
  Require(payload.size() <= 1024, "too long");
  const json object = json::parse(payload);
  Require(object.is_object(), "not a JSON object");
  const std::string start = "a" + place.str(1) + "l";
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
  static const std::regex bytes("([0-9A-Fa-f]{2})+");
  Require(payload.size() <= 255 && std::regex_match(payload, bytes),
          "not bytes of two hexadecimal digits each");
  std::string digits = payload;
  for (char& c : digits) c = c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c;
  return {"a" + place.str(1) + "sHS" + digits};
}

void CheckLine(const std::string& line, const CARDS& cards, const std::string& separator) {
  Require(line.size() + separator.size() <= 255, "longer than what talp reads at once");
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

}  // namespace

LINES Translate(const std::string& path, const std::string& payload, const CARDS& cards,
                const std::string& separator) {
  static const std::pair<std::regex, decltype(&RawLine)> kRoutes[] = {
      {std::regex("io/set"), RawLine},
      {std::regex("card/([0-9A-F])/lcd/set"), SetLcd},
      {std::regex("card/([0-9A-F])/ir/set"), SendIr},
      {std::regex("card/([0-9A-F])/([0-7])/set"), SetBlock},
      {std::regex("card/([0-9A-F])/([0-7])/([0-7])/set"), SetBit}};
  const std::string known = path.substr(0, 20);  // none of the patterns takes as much
  for (const auto& [pattern, translate] : kRoutes) {
    PLACE place;
    if (!std::regex_match(known, place, pattern)) continue;
    const std::size_t address = place.size() < 2 ? 0 : HexCharToByte(place.str(1)[0]);
    LINES lines = translate(place, payload, cards[address]);
    Require(!lines.empty(), "it asks for nothing");
    for (const std::string& line : lines) CheckLine(line, cards, separator);
    return lines;
  }
  throw std::invalid_argument("unknown topic");
}

void Require(bool holds, const std::string& reason) {
  if (!holds) throw std::invalid_argument(reason);
}

}  // namespace mqtt

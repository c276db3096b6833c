#include "cardsim/console.h"

#include <cstdint>
#include <optional>
#include <utility>

namespace cardsim {

namespace {

constexpr char kNoCard[] = "no card there";

std::string SwitchTo(const std::string& word, bool* value) {
  if (word != "on" && word != "off") return "on or off";
  *value = word == "on";
  return {};
}

}  // namespace

struct CONSOLE::COMMAND {
  const char* name;
  size_t leastWords;  // after the name
  size_t mostWords;
  const char* arguments;
  std::string (CONSOLE::*run)(const WORDS& words, LINES* lines);
  const char* help;
};

const CONSOLE::COMMAND CONSOLE::kCommands[] = {
    {"set", 3, 3, "A B HH", &CONSOLE::Set, "input block B of card A becomes HH"},
    {"answer", 2, 2, "A HH|auto", &CONSOLE::Answer,
     "HH is the value byte of card A's direct answers"},
    {"card", 2, 2, "A KIND|none", &CONSOLE::Card, "plug a new card in at A, or take it out"},
    {"fault", 1, 5, "NAME ...", &CONSOLE::Fault, "spoil the next replies, see below"},
    {"silence", 1, 1, "on|off", &CONSOLE::Silence, "the whole bus hears and answers nothing"},
    {"frames", 1, 1, "on|off", &CONSOLE::Frames, "print each frame as rx and tx lines"},
    {"hangup", 0, 0, "", &CONSOLE::HangUp, "pull the adapter out: pty and link vanish"},
    {"return", 0, 1, "[LINK]", &CONSOLE::Return, "plug it in again, linked at LINK or as before"},
    {"show", 0, 0, "", &CONSOLE::Show, "print every card, waiting fault and switch"},
    {"sync", 0, SIZE_MAX, "TEXT", &CONSOLE::Sync, "print 'sync TEXT': all before it is done"},
    {"help", 0, 0, "", &CONSOLE::Help, "print this"},
    {"quit", 0, 0, "", &CONSOLE::Quit, "end the simulator"},
};

CONSOLE::CONSOLE(CARD_BUS* bus, FAULT_PLAN* faults, SWITCHES* switches, CABLE cable)
    : bus_(bus), faults_(faults), switches_(switches), cable_(std::move(cable)) {}

void CONSOLE::Run(const std::string& line, LINES* lines) {
  WORDS words = SplitWords(line);
  if (words.empty()) return;
  for (const COMMAND& command : kCommands) {
    if (words[0] != command.name) continue;
    words.erase(words.begin());
    const bool fits = words.size() >= command.leastWords && words.size() <= command.mostWords;
    const std::string why = fits ? (this->*command.run)(words, lines)
                                 : std::string("usage: ") + command.name + ' ' + command.arguments;
    if (!why.empty()) lines->push_back("error: " + why);
    return;
  }
  lines->push_back("error: unknown command " + Quoted(words[0]) + ", try help");
}

std::string CONSOLE::Set(const WORDS& words, LINES*) {
  CARD* card = FindCard(words[0]);
  if (card == nullptr) return kNoCard;
  const std::optional<unsigned char> block = ParseHexDigit(words[1]);
  const std::optional<unsigned char> value = ParseHexByte(words[2]);
  if (!block || *block >= card->kind->inputBytes) {
    return "card " + AddressText(*card) + " has " + std::to_string(card->kind->inputBytes) +
           " input blocks";
  }
  if (!value) return "the value is two hexadecimal digits";
  card->inputs[*block] = *value;
  return {};
}

std::string CONSOLE::Answer(const WORDS& words, LINES*) {
  CARD* card = FindCard(words[0]);
  if (card == nullptr) return kNoCard;
  const std::optional<unsigned char> value = ParseHexByte(words[1]);
  if (!value && words[1] != "auto") return "the value is two hexadecimal digits, or auto";
  card->answer = value;
  return {};
}

std::string CONSOLE::Card(const WORDS& words, LINES*) {
  const std::optional<unsigned char> address = ParseHexDigit(words[0]);
  const std::optional<unsigned char> code = ParseKind(words[1]);
  if (!address) return "the address is one hexadecimal digit";
  if (!code) return "the kind is none, " + KindWords() + " or two hexadecimal digits";
  PlugIn(bus_->Slot(*address), *code);
  return {};
}

std::string CONSOLE::Fault(const WORDS& words, LINES*) { return faults_->Command(words); }

std::string CONSOLE::Silence(const WORDS& words, LINES*) {
  return SwitchTo(words[0], &switches_->silent);
}

std::string CONSOLE::Frames(const WORDS& words, LINES*) {
  return SwitchTo(words[0], &switches_->frames);
}

std::string CONSOLE::HangUp(const WORDS&, LINES* lines) { return cable_.hangUp(lines); }

std::string CONSOLE::Return(const WORDS& words, LINES* lines) {
  return cable_.comeBack(words.empty() ? std::string() : words[0], lines);
}

std::string CONSOLE::Show(const WORDS&, LINES* lines) {
  bus_->Show(lines);
  faults_->Show(lines);
  lines->push_back(std::string("silence ") + (switches_->silent ? "on" : "off"));
  lines->push_back(std::string("frames ") + (switches_->frames ? "on" : "off"));
  return {};
}

// Members for the sake of the table.
// NOLINTBEGIN(readability-convert-member-functions-to-static)
std::string CONSOLE::Sync(const WORDS& words, LINES* lines) {
  std::string line = "sync";
  for (const std::string& word : words) line += ' ' + word;
  lines->push_back(line);
  return {};
}

std::string CONSOLE::Help(const WORDS&, LINES* lines) {
  lines->push_back(CommandHelp() +
                   "faults: fault NAME [N|forever] [ARG] [on REQUEST], fault off\n" + FaultHelp() +
                   "cards:\n" + KindHelp());
  lines->back().pop_back();
  return {};
}
// NOLINTEND(readability-convert-member-functions-to-static)

std::string CONSOLE::Quit(const WORDS&, LINES*) {
  switches_->quit = true;
  return {};
}

CARD* CONSOLE::FindCard(const std::string& digit) {
  const std::optional<unsigned char> address = ParseHexDigit(digit);
  if (!address) return nullptr;
  CARD& card = bus_->Slot(*address);
  return card.kind == nullptr ? nullptr : &card;
}

std::string CommandHelp() {
  constexpr size_t kUsageWidth = 20;
  std::string help;
  for (const CONSOLE::COMMAND& command : CONSOLE::kCommands) {
    std::string usage = std::string(command.name) + ' ' + command.arguments;
    usage.resize(kUsageWidth, ' ');
    help += "  " + usage + command.help + '\n';
  }
  return help;
}

}  // namespace cardsim

#include "cardsim/console.h"

#include <array>
#include <cstdint>
#include <optional>

#include "cardsim/table.h"

namespace {

constexpr size_t kLongestLine = 1000;
constexpr char kNoCard[] = "no card there";
constexpr char kNoByte[] = "the value is two hexadecimal digits";

CARD* FindCard(SIMULATOR* sim, const std::string& address) {
  const std::optional<unsigned char> slot = ParseHex(address, 1);
  return slot ? sim->bus->FindCard(*slot) : nullptr;
}

// The commands. Each returns why it cannot, or an empty text. The words do not hold its name.

std::string Set(SIMULATOR* sim, const WORDS& words) {
  CARD* const card = FindCard(sim, words[0]);
  const std::optional<unsigned char> channel = ParseHex(words[1], 1);
  const std::optional<unsigned char> value = ParseHex(words[2], 2);
  if (card == nullptr) return kNoCard;
  if (!channel || *channel >= card->kind->inputs) {
    return "the card has " + std::to_string(card->kind->inputs) + " inputs";
  }
  if (!value) return kNoByte;
  card->inputs[*channel] = *value;
  return {};
}

std::string Answer(SIMULATOR* sim, const WORDS& words) {
  CARD* const card = FindCard(sim, words[0]);
  const std::optional<unsigned char> value = ParseHex(words[1], 2);
  if (card == nullptr) return kNoCard;
  if (!value && words[1] != "auto") return kNoByte;
  card->answer = value;
  return {};
}

std::string Card(SIMULATOR* sim, const WORDS& words) {
  const std::optional<unsigned char> address = ParseHex(words[0], 1);
  const std::optional<unsigned char> code = ParseKind(words[1]);
  if (!address) return "the address is one hexadecimal digit";
  if (!code) return "the kind is none, " + KindWords() + " or two hexadecimal digits";
  PlugIn(sim->bus->Slot(*address), *code);
  return {};
}

std::string Fault(SIMULATOR* sim, const WORDS& words) { return sim->faults->Command(words); }

std::string HangUp(SIMULATOR* sim, const WORDS&) { return sim->adapter->PullOut(); }

std::string Return(SIMULATOR* sim, const WORDS& words) {
  return sim->adapter->PlugIn(words.empty() ? "" : words[0]);
}

std::string Show(SIMULATOR* sim, const WORDS&) {
  sim->bus->Show();
  sim->faults->Show();
  return {};
}

std::string Sync(SIMULATOR* sim, const WORDS& words) {
  sim->out->Print("sync" + JoinWords(words));
  return {};
}

std::string Quit(SIMULATOR* sim, const WORDS&) {
  sim->quit = true;
  return {};
}

std::string Help(SIMULATOR* sim, const WORDS& words);

struct COMMAND {
  const char* name;
  const char* arguments;  // with a blank before them
  size_t leastWords;      // of the arguments
  size_t mostWords;
  std::string (*run)(SIMULATOR* sim, const WORDS& words);
  const char* help;
};

constexpr COMMAND kCommands[] = {
    {"set", " A CH VALUE", 3, 3, Set, "input CH of card A becomes VALUE"},
    {"answer", " A VALUE|auto", 2, 2, Answer, "the value in card A's direct answers"},
    {"card", " A KIND|none", 2, 2, Card, "plug a new card in at A, or take it out"},
    {"fault", " NAME[=VALUE] [COUNT|forever] [on REQUEST]", 1, 4, Fault,
     "corrupt replies; fault off ends it"},
    {"hangup", "", 0, 0, HangUp, "pull the adapter out: pty and link vanish"},
    {"return", " [PATH]", 0, 1, Return, "plug it in again, linked there or as before"},
    {"show", "", 0, 0, Show, "print every card and waiting fault"},
    {"sync", " [TEXT]", 0, SIZE_MAX, Sync, "print this line: all before it is done"},
    {"help", "", 0, 0, Help, "print this; talp-cardsim(1) has the rest"},
    {"quit", "", 0, 0, Quit, "end the simulator"},
};

std::string Help(SIMULATOR* sim, const WORDS&) {
  for (const COMMAND& command : kCommands) {
    sim->out->Print(std::string(command.name) + command.arguments + ": " + command.help);
  }
  return {};
}

// What is wrong with the line, or an empty text.
std::string Run(SIMULATOR* sim, const std::string& line) {
  WORDS words = SplitWords(line);
  if (words.empty()) return {};
  const std::string name = words[0];
  words.erase(words.begin());
  const COMMAND* const command = FindRow(kCommands, name);
  if (command == nullptr) return "unknown command " + Printable(name) + ", try help";
  const bool fits = words.size() >= command->leastWords && words.size() <= command->mostWords;
  return fits ? command->run(sim, words) : "usage: " + name + command->arguments;
}

}  // namespace

// A line longer than any command is cut, so that endless input takes no endless memory.
void CONSOLE::Read() {
  std::array<char, 4096> bytes;
  const ssize_t count = read(input_, bytes.data(), bytes.size());
  if (count <= 0) {
    simulator_.quit = count == 0 && isatty(input_) == 1;
    input_ = -1;
  }
  for (ssize_t i = 0; i < count && !HasQuit(); ++i) {
    const char c = bytes[static_cast<size_t>(i)];
    if (c != '\n' && line_.size() < kLongestLine) {
      line_ += c;
      continue;
    }
    const std::string why = Run(&simulator_, line_);
    if (!why.empty()) simulator_.out->Print("error: " + why);
    line_.clear();
  }
}

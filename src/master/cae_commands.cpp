#include "master/cae_commands.h"

#include <cstdio>
#include <vector>

#include "bus/frame.h"
#include "core/byte_list.h"
#include "core/speed.h"
#include "master/cae_card_commands.h"
#include "master/cae_line.h"
#include "master/help_texts.h"

namespace {

constexpr char kPrompt[] = ">";

void AnswerLines(const std::vector<std::string>& lines, CAE_CONSOLE* console) {
  for (const std::string& line : lines) console->Answer(line);
}

// "DTI:0x3:text" and the like.
std::string TableLine(const char* key, int address, const std::string& text) {
  char line[80];
  std::snprintf(line, sizeof line, "%s:0x%X:%s", key, static_cast<unsigned>(address), text.c_str());
  return line;
}

// The lines of `describe` for every address; an empty text is no line.
template <typename DESCRIBE>
std::vector<std::string> ListCards(const char* key, CARD_TABLE* table, DESCRIBE describe) {
  std::vector<std::string> lines;
  MUTEX_GUARD guard(&table->lock);
  for (int address = 0; address < kAddressCount; ++address) {
    const std::string text = describe(table->cards[address]);
    if (!text.empty()) lines.push_back(TableLine(key, address, text));
  }
  return lines;
}

std::string NameOf(const PERIFCARD& card) { return card.name; }

std::string PollStateOf(const PERIFCARD& card) {
  if (card.cardClass != kInputClass) return "";
  return card.pollEnabled == 1 ? "ON" : "OFF";
}

void ListDiscovered(const char* title, CAE_CONSOLE* console) {
  console->Answer(title);
  AnswerLines(ListCards("DTI", console->Context().cards, NameOf), console);
}

void SetSpeed(const std::string& line, CAE_CONSOLE* console) {
  const std::string typed = NumberText(line, console->Context().inpSeparator);
  const long percent = ATOL(typed);
  if (percent < kSlowestPercent || percent > kFastestPercent) {
    console->Answer("CIE: Parameter is out of range (1..100)");
    return;
  }
  for (SHARED<int>* const delay : console->Context().delays) *delay = DelayFromPercent(percent);
  console->Answer("CIA: SPEED IS SET to " + typed + "%");
}

void AnswerPolling(CAE_CONSOLE* console) {
  const bool enabled = *console->Context().globalPolling;
  console->Answer(std::string("CIA: GLOBAL POLLING IS ") + (enabled ? "ENABLED" : "DISABLED"));
}

void DisablePoll(const std::string&, CAE_CONSOLE* console) {
  *console->Context().globalPolling = false;
  AnswerPolling(console);
}

void EnablePoll(const std::string&, CAE_CONSOLE* console) {
  *console->Context().globalPolling = true;
  AnswerPolling(console);
}

void ShowPollState(const std::string&, CAE_CONSOLE* console) {
  AnswerPolling(console);
  AnswerLines(ListCards("PTI", console->Context().cards, PollStateOf), console);
}

void ShowVersion(const std::string&, CAE_CONSOLE* console) {
  console->Answer("CIA: DRIVER VERSION " TALP_VERSION);
}

// Returns whether the card at `address` is one that can be polled.
bool SwitchCardPolling(unsigned char address, bool on, CARD_TABLE* table) {
  MUTEX_GUARD guard(&table->lock);
  PERIFCARD* const card = &table->cards[address];
  if (card->cardClass != kInputClass) return false;
  card->pollEnabled = on ? 1 : 0;
  return true;
}

void AnswerCardPolling(const std::string& line, const char* command, bool on,
                       CAE_CONSOLE* console) {
  const std::string address = TextAfter(line, ':', 1);
  if (SwitchCardPolling(DigitOf(address), on, console->Context().cards)) {
    console->Answer(std::string("CIA: ") + command + " is OK at address " + address);
  } else {
    console->Answer("CIE: THIS COMMAND IS VALID ON INPUT CARDS");
  }
}

void PollOn(const std::string& line, CAE_CONSOLE* console) {
  AnswerCardPolling(line, "POLLON", true, console);
}

void PollOff(const std::string& line, CAE_CONSOLE* console) {
  AnswerCardPolling(line, "POLLOFF", false, console);
}

void Discover(const std::string&, CAE_CONSOLE* console) {
  ListDiscovered("DISCOVER LIST:", console);
}

void ClearCards(CARD_TABLE* table) {
  MUTEX_GUARD guard(&table->lock);
  for (int address = 0; address < kAddressCount; ++address) table->cards[address].clearPerifCard();
}

// Polling rests meanwhile, so that no half-cleared table is polled.
void ForceDiscover(const std::string&, CAE_CONSOLE* console) {
  CAE_CONTEXT& context = console->Context();
  const bool polling = *context.globalPolling;
  *context.globalPolling = false;
  context.wait(1);
  ClearCards(context.cards);
  context.busCommands->ToQueue(DiscoveryRequest());
  context.wait(1);
  ListDiscovered("FORCED DISCOVER LIST:", console);
  *context.globalPolling = polling;
}

// The prompt that follows is left for the next client, deliberately.
void Exit(const std::string&, CAE_CONSOLE* console) {
  console->Answer(kFarewell);
  console->Context().wait(kFarewellPause);
  console->Context().closeClient();
}

std::string LastInputError(const PERIFCARD& card, int block) {
  const CARD_KIND& kind = CardKindOf(card.kindCode);
  if (!kind.lastInputReadable) {
    return "CIE: THIS COMMAND IS VALID ON ANALOG OR DIGITAL INPUT CARD ONLY";
  }
  if (block >= kind.blockCount) return "CIE: INVALID BLOCK NUMBER";
  return "";
}

// The state goes where a change of it would have gone: to the IO client.
void GetLastInput(const std::string& line, CAE_CONSOLE* console) {
  CAE_CONTEXT& context = console->Context();
  const int address = DigitOf(TextAfter(line, ':', 1));
  const int block = DigitOf(TextAfter(line, '=', 1));
  std::string answer;
  {
    MUTEX_GUARD guard(&context.cards->lock);
    const PERIFCARD& card = context.cards->cards[address];
    answer = LastInputError(card, block);
    if (answer.empty()) {
      const std::string input = InputLine(address, block, card.blockState[block]);
      context.cardInput->ToQueue(Convert_String2QList(input));
      answer = "CIA: LAST INPUT STATE SENT ON IO INTERFACE";
    }
  }
  console->Answer(answer);
}

void ShowHelp(const std::string&, CAE_CONSOLE* console) { AnswerLines(HelpLines(), console); }

void ShowIoExamples(const std::string&, CAE_CONSOLE* console) {
  AnswerLines(IoExampleLines(), console);
}

struct COMMAND {
  const char* key;
  LINE_MATCH match;
  void (*run)(const std::string& line, CAE_CONSOLE* console);  // null: a card command of that key
};

constexpr LINE_MATCH kWhole = LINE_MATCH::kWholeLine;
constexpr LINE_MATCH kWithArguments = LINE_MATCH::kKeyAndSeparator;

// All rows are tried on every line, in this order.
constexpr COMMAND kCommands[] = {
    {"SPEED=", LINE_MATCH::kKey, SetSpeed},
    {"DISABLEPOLL", kWhole, DisablePoll},
    {"DRVVER", kWhole, ShowVersion},
    {"LCDSELFTEST:", kWithArguments, nullptr},
    {"LCDINITLIGHT:", kWithArguments, nullptr},
    {"REBOOT:", kWithArguments, nullptr},
    {"SETANMASK:", kWithArguments, nullptr},
    {"GETANMASK:", kWithArguments, nullptr},
    {"STOREANMASK:", kWithArguments, nullptr},
    {"STORESRVPOS:", kWithArguments, nullptr},
    {"MOVESTRPOS:", kWithArguments, nullptr},
    {"SETSC", kWithArguments, nullptr},
    {"GETSC", kWithArguments, nullptr},
    {"SETMSR", kWithArguments, nullptr},
    {"GETMSR", kWithArguments, nullptr},
    {"STOREMSRS", kWithArguments, nullptr},
    {"POLLON:", kWithArguments, PollOn},
    {"POLLOFF:", kWithArguments, PollOff},
    {"ENABLEPOLL", kWhole, EnablePoll},
    {"POLLSTATE", kWhole, ShowPollState},
    {"DISCOVER", kWhole, Discover},
    {"FORCEDISCOVER", kWhole, ForceDiscover},
    {"EXIT", kWhole, Exit},
    {"GETLASTINPST:", kWithArguments, GetLastInput},
    {"HELP", kWhole, ShowHelp},
    {"IOEXAMPLES", kWhole, ShowIoExamples},
};

}  // namespace

void CAE_CONSOLE::Answer(const std::string& text) {
  context_.answers->ToQueue(Convert_String2QList(text + context_.outSeparator));
}

void CAE_CONSOLE::Execute(const std::string& line) {
  bool handled = false;
  for (const COMMAND& command : kCommands) {
    if (!LineMatches(line, command.match, command.key, context_.inpSeparator)) continue;
    handled = true;
    if (command.run != nullptr) {
      command.run(line, this);
    } else {
      RunCardCommand(command.key, line, this);
    }
  }
  // An unknown command is not repeated; its answer, one message, carries the prompt.
  Answer(handled ? kPrompt : "CIE: UNKNOWN COMMAND " + context_.outSeparator + kPrompt);
}

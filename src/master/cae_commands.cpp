#include "master/cae_commands.h"

#include <cstddef>
#include <iterator>
#include <optional>
#include <variant>

#include "bus/frame.h"
#include "core/byte_list.h"
#include "core/speed.h"
#include "master/cae_card_commands.h"
#include "master/cae_line.h"
#include "master/help_texts.h"
#include "net/client_framing.h"

namespace {

void AnswerLines(const std::vector<std::string>& lines, const CAE_CONTEXT& console) {
  for (const std::string& line : lines) console.Answer(line);
}

// "DTI:0x3:text" and the like.
std::string TableLine(const char* key, int address, const std::string& text) {
  return std::string(key) + ":0x" + HexText(static_cast<unsigned>(address), 1) + ":" + text;
}

// One line for every address, with the text of `describe`; no line if that is empty.
template <typename DESCRIBE>
std::vector<std::string> ListCards(const char* key, const CARD_TABLE& table, DESCRIBE describe) {
  std::vector<std::string> lines;
  MUTEX_GUARD guard(&table.lock);
  for (int address = 0; address < kAddressCount; ++address) {
    const std::string text = describe(table.cards[address]);
    if (!text.empty()) lines.push_back(TableLine(key, address, text));
  }
  return lines;
}

std::string NameOf(const PERIFCARD& card) { return card.name; }

std::string PollStateOf(const PERIFCARD& card) {
  if (card.cardClass != CARD_CLASS::kInput) return "";
  return card.pollEnabled ? "ON" : "OFF";
}

void ListDiscovered(const char* title, const CAE_CONTEXT& console) {
  console.Answer(title);
  AnswerLines(ListCards("DTI", *console.cards, NameOf), console);
}

void SetSpeed(const std::string& line, const CAE_CONTEXT& console) {
  const std::string typed = NumberText(line, console.inpSeparator);
  const long percent = ATOL(typed);
  if (percent < kSlowestPercent || percent > kFastestPercent) {
    console.Answer("CIE: Parameter is out of range (1..100)");
    return;
  }
  for (SHARED<int>* const delay : console.delays) *delay = DelayFromPercent(percent);
  console.Answer("CIA: SPEED IS SET to " + typed + "%");
}

void AnswerPolling(const CAE_CONTEXT& console) {
  const bool enabled = *console.globalPolling;
  console.Answer(std::string("CIA: GLOBAL POLLING IS ") + (enabled ? "ENABLED" : "DISABLED"));
}

void DisablePoll(const std::string&, const CAE_CONTEXT& console) {
  *console.globalPolling = false;
  AnswerPolling(console);
}

void EnablePoll(const std::string&, const CAE_CONTEXT& console) {
  *console.globalPolling = true;
  AnswerPolling(console);
}

void ShowPollState(const std::string&, const CAE_CONTEXT& console) {
  AnswerPolling(console);
  AnswerLines(ListCards("PTI", *console.cards, PollStateOf), console);
}

void ShowVersion(const std::string&, const CAE_CONTEXT& console) {
  console.Answer("CIA: DRIVER VERSION " TALP_VERSION);
}

// False if the card at `address` cannot be polled.
bool SwitchCardPolling(unsigned char address, bool on, CARD_TABLE* table) {
  MUTEX_GUARD guard(&table->lock);
  PERIFCARD* const card = &table->cards[address];
  if (card->cardClass != CARD_CLASS::kInput) return false;
  card->pollEnabled = on;
  return true;
}

void AnswerCardPolling(const std::string& line, const char* command, bool on,
                       const CAE_CONTEXT& console) {
  const std::string address = TextAfter(line, ':', 1);
  if (SwitchCardPolling(DigitOf(address), on, console.cards)) {
    console.Answer(std::string("CIA: ") + command + " is OK at address " + address);
  } else {
    console.Answer("CIE: THIS COMMAND IS VALID ON INPUT CARDS");
  }
}

void PollOn(const std::string& line, const CAE_CONTEXT& console) {
  AnswerCardPolling(line, "POLLON", true, console);
}

void PollOff(const std::string& line, const CAE_CONTEXT& console) {
  AnswerCardPolling(line, "POLLOFF", false, console);
}

void Discover(const std::string&, const CAE_CONTEXT& console) {
  ListDiscovered("DISCOVER LIST:", console);
}

void ClearCards(CARD_TABLE* table) {
  MUTEX_GUARD guard(&table->lock);
  for (int address = 0; address < kAddressCount; ++address) table->cards[address].clearPerifCard();
}

// Polling is off meanwhile, so that no half-cleared table is polled.
void ForceDiscover(const std::string&, const CAE_CONTEXT& console) {
  const bool polling = *console.globalPolling;
  *console.globalPolling = false;
  console.wait(1);
  ClearCards(console.cards);
  console.busCommands->ToQueue(DiscoveryRequest());
  console.wait(1);
  ListDiscovered("FORCED DISCOVER LIST:", console);
  *console.globalPolling = polling;
}

// The prompt that Execute adds stays queued and goes to the next client.
void Exit(const std::string&, const CAE_CONTEXT& console) {
  console.Answer(kFarewell);
  console.wait(kFarewellPause);
  console.closeClient();
}

std::string LastInputError(const PERIFCARD& card, int block) {
  const CARD_KIND& kind = CardKindOf(card.kindCode);
  if (!kind.lastInputReadable) {
    return "CIE: THIS COMMAND IS VALID ON ANALOG OR DIGITAL INPUT CARD ONLY";
  }
  if (block >= kind.blockCount) return "CIE: INVALID BLOCK NUMBER";
  return "";
}

// The state is sent to the IO client, as a change of it would be.
void GetLastInput(const std::string& line, const CAE_CONTEXT& console) {
  const int address = DigitOf(TextAfter(line, ':', 1));
  const int block = DigitOf(TextAfter(line, '=', 1));
  std::string answer;
  {
    MUTEX_GUARD guard(&console.cards->lock);
    const PERIFCARD& card = console.cards->cards[address];
    answer = LastInputError(card, block);
    if (answer.empty()) {
      const std::string input = InputLine(address, block, card.blockState[block]);
      console.cardInput->ToQueue(Convert_String2QList(input));
      answer = "CIA: LAST INPUT STATE SENT ON IO INTERFACE";
    }
  }
  console.Answer(answer);
}

void ShowHelp(const std::string&, const CAE_CONTEXT& console) { AnswerLines(HelpLines(), console); }

void ShowIoExamples(const std::string&, const CAE_CONTEXT& console) {
  AnswerLines(IoExampleLines(), console);
}

using HANDLER = void (*)(const std::string& line, const CAE_CONTEXT& console);

struct COMMAND {
  const char* key;
  LINE_MATCH match;
  std::variant<HANDLER, CARD_COMMAND> action;
};

constexpr LINE_MATCH kWhole = LINE_MATCH::kWholeLine;
constexpr LINE_MATCH kWithArguments = LINE_MATCH::kKeyAndSeparator;
constexpr CARD_ACCESS kWrite = CARD_ACCESS::kWrite;
constexpr CARD_ACCESS kRead = CARD_ACCESS::kRead;
constexpr PAYLOAD_BYTE kState = {SOURCE::kState};
constexpr PAYLOAD_BYTE kValue = {SOURCE::kValue};

constexpr PAYLOAD_BYTE Literal(unsigned char byte) { return {SOURCE::kLiteral, byte}; }
constexpr PAYLOAD_BYTE Channel(unsigned char base) { return {SOURCE::kChannel, base}; }
constexpr PAYLOAD_BYTE ServoSet(unsigned char baseA, unsigned char baseB) {
  return {SOURCE::kServoSet, baseA, baseB};
}

constexpr char kLcdOnly[] = "CIE: THIS COMMAND IS VALID FOR LCD CONTROL CARD ONLY";
constexpr char kAnalogOnly[] = "CIE: THIS COMMAND IS VALID ON ANALOG INPUT CARD ONLY";
constexpr char kServoOnly[] = "CIE: THIS COMMAND IS VALID ON SERVO CONTROLLER CARD ONLY";
// LEGAL is fixed, see docs/architecture.md.
constexpr char kServoLegal[] = "CIE: THIS COMMAND IS LEGAL ON SERVO CONTROLLER CARD ONLY";
constexpr char kMotorOnly[] = "CIE: THIS COMMAND IS VALID ON DC MOTOR CONTROLLER CARD ONLY";

// Every row that matches a line is run, in this order.
// clang-format off
constexpr COMMAND kCommands[] = {
    {"SPEED=", LINE_MATCH::kKey, SetSpeed},
    {"DISABLEPOLL", kWhole, DisablePoll},
    {"DRVVER", kWhole, ShowVersion},
    {"LCDSELFTEST:", kWithArguments, CARD_COMMAND{
        kKindLcd, kLcdOnly, kWrite, {Literal(0x01), kState},
        {"CIA: SELFTEST STATE IS SET TO {state} at address {typed}"}, "CIE: STATE WRITE ERROR"}},
    {"LCDINITLIGHT:", kWithArguments, CARD_COMMAND{
        kKindLcd, kLcdOnly, kWrite, {Literal(0x02), kState},
        {"CIA: INITLIGHT STATE IS SET TO {state} at address {typed}"}, "CIE: STATE WRITE ERROR"}},
    {"REBOOT:", kWithArguments, CARD_COMMAND{
        std::nullopt, "", kWrite, {Literal(0xAB)},
        {"CIA: Card is REBOOTED", "RBT:0x{address}:OK"}, "CIE: BUS WRITE ERROR"}},
    {"SETANMASK:", kWithArguments, CARD_COMMAND{
        kKindAnalogueInput, kAnalogOnly, kWrite, {Literal(0x01), kValue},
        {"CIA: Channel MASK of the card is SET", "AMS:0x{address}:0x{value}"},
        "CIE: MASK WRITE ERROR"}},
    {"GETANMASK:", kWithArguments, CARD_COMMAND{
        kKindAnalogueInput, kAnalogOnly, kRead, {Literal(0x01)},
        {"CIA: MASK is GOT from card", "AMV:0x{address}:0x{answer}"}, "CIE: MASK READ ERROR"}},
    {"STOREANMASK:", kWithArguments, CARD_COMMAND{
        kKindAnalogueInput, kAnalogOnly, kWrite, {Literal(0x02)},
        {"CIA: MASK IS STORED at address {typed}"}, "CIE: MASK STORE ERROR"}},
    {"STORESRVPOS:", kWithArguments, CARD_COMMAND{
        kKindServo, kServoOnly, kWrite, {Literal(0x74)},
        {"CIA: POSITIONS ARE STORED at address {typed}"}, "CIE: POSITION STORING ERROR"}},
    {"MOVESTRPOS:", kWithArguments, CARD_COMMAND{
        kKindServo, kServoLegal, kWrite, {Literal(0x3F)},
        {"CIA: SERVOS ARE MOVED TO STORED POSITIONS at address {typed}"},
        "CIE: POSITIONS MOVING ERROR"}},
    {"SETSC", kWithArguments, CARD_COMMAND{
        kKindServo, kServoOnly, kWrite, {ServoSet(0xC0, 0xD0), kValue},
        {"CIA: SERVO PARAM of the card is SET", "SPS:0x{address}:SC{set}{channel}:0x{value}"},
        "CIE: PARAM WRITE ERROR"}},
    {"GETSC", kWithArguments, CARD_COMMAND{
        kKindServo, kServoOnly, kRead, {ServoSet(0x21, 0x27)},
        {"CIA: SERVO PARAM is GOT from card", "SPG:0x{address}:SC{set}{channel}:0x{answer}"},
        "CIE: PARAM READ ERROR"}},
    {"SETMSR", kWithArguments, CARD_COMMAND{
        kKindMotor, kMotorOnly, kWrite, {Channel(0xC0), kValue},
        {"CIA: MSR value of the card is SET", "MPS:0x{address}:MSR{channel}:0x{value}"},
        "CIE: PARAM WRITE ERROR"}},
    {"GETMSR", kWithArguments, CARD_COMMAND{
        kKindMotor, kMotorOnly, kRead, {Channel(0x01)},
        {"CIA: MSR value is GOT from card", "MSR{number}:0x{address}:0x{answer}"},
        "CIE: PARAM READ ERROR"}},
    {"STOREMSRS", kWithArguments, CARD_COMMAND{
        kKindMotor, kMotorOnly, kWrite, {Literal(0xCD)},
        {"CIA: MSR values are STORED at address {typed}"}, "CIE: MSR STORING ERROR"}},
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
// clang-format on

}  // namespace

CAE_CONSOLE::CAE_CONSOLE(const CAE_CONTEXT& context)
    : context_(context), rememberedStates_(std::size(kCommands)) {}

void CAE_CONSOLE::Execute(const std::string& line) {
  bool handled = false;
  for (std::size_t row = 0; row < std::size(kCommands); ++row) {
    const COMMAND& command = kCommands[row];
    if (!LineMatches(line, command.match, command.key, context_.inpSeparator)) continue;
    handled = true;
    if (const HANDLER* const run = std::get_if<HANDLER>(&command.action)) {
      (*run)(line, context_);
    } else {
      RunCardCommand(std::get<CARD_COMMAND>(command.action), line, context_,
                     &rememberedStates_[row]);
    }
  }
  // The answer to an unknown command is one message with the prompt in it.
  context_.Answer(handled ? kPrompt : "CIE: UNKNOWN COMMAND " + context_.outSeparator + kPrompt);
}

#include "cardsim/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <vector>

#include "cardsim/console.h"
#include "cardsim/fault_plan.h"

namespace cardsim {

namespace {

constexpr int kBadOptions = 2;

constexpr char kDescription[] =
    "A simulated bus of peripheral cards for the daemon talp. It makes a pseudo-terminal that\n"
    "behaves like the USB serial adapter of a real bus: link it as /dev/ttyUSB0 and talp finds "
    "it,\n"
    "discovers the cards, polls their inputs and sets their outputs. You change inputs and order\n"
    "faults by typing commands; what the cards receive is printed, one line each.\n";

constexpr char kExample[] =
    "Example, with a digital input card at 3, a digital output card at 5 and a display at E:\n"
    "  talp-cardsim --link /dev/ttyUSB0 --card 3=din --card 5=dout --card E=lcd\n"
    "Type 'set 3 0 40': talp tells its IO client a3b0d40. Let that client send a5b1dFB: this\n"
    "program prints 'out 5 dout b0=FF b1=FB'.\n";

constexpr char kLines[] =
    "  ready /dev/pts/3 link /dev/ttyUSB0     the first line: the bus answers now\n"
    "  out 5 dout b0=FF b1=FB                 output blocks; out 0 servo and out 4 motor likewise\n"
    "  lcd E clear                            backlight, cursor and blinking on or off likewise\n"
    "  lcd E text 3,1 \"Tail of the cat\"       column and row from 0, then the four rows as "
    "shown:\n"
    "  lcd E row 1 |   Tail of the cat  |     what passes the end of a row is lost\n"
    "  ir 9 4F 4B \"OK\"                        bytes sent by infrared\n"
    "  direct 7 mask=3F                       a parameter set; 'direct 7 mask? 3F' one read\n"
    "  direct 5 reboot                        an action; stored parameters survive a reboot\n"
    "  refused 10 05 01 FF: why               a card was asked for what it cannot do\n"
    "  ignored 7A                             a request that the bus does not know: no reply\n"
    "  dropped 03 20                          a request whose rest did not come within 200 ms\n"
    "  rx 03 20 03 02, tx 04 21 03 40 00      with frames on: requests and replies, length first\n"
    "  fault lost done, hung up, sync TEXT, error: why\n"
    "A slow reader of these lines never delays the bus: a mebibyte of lines waits for it, then\n"
    "lines are lost and counted ('lost 12 lines').\n";

constexpr char kFaults[] =
    "  fault NAME [N|forever] [ARG] [on REQUEST]      fault lost 1 on poll, fault late 2 500\n"
    "A fault spoils the next N replies (1), or all until 'fault off', and prints 'fault NAME "
    "done'\n"
    "with the last. ARG follows N, but for 'error' it may stand alone: fault error 4E. REQUEST\n"
    "limits the fault to replies of handshake, discovery, poll, output or direct. Several may\n"
    "wait; the oldest that fits a reply applies. Cards act on a request even when its reply is\n"
    "spoilt. In brackets what ARG is when it is left out:\n";

constexpr char kReplies[] =
    "Requests to a slot without a card, or that a card cannot carry out, are answered 'N' and the\n"
    "address; an output frame is answered 'A' and the address; a direct command 'Q', the address,\n"
    "the command byte and a value byte: the parameter, or what 'answer' has set.\n";

constexpr char kEnd[] =
    "Ctrl-D on a terminal, quit, SIGINT, SIGTERM and SIGHUP end the program and take the link\n"
    "away. When standard input is a pipe or /dev/null, its end changes nothing: the bus stays.\n"
    "Exit status: 0, 1 when the pty or link cannot be made, 2 for bad options.\n";

std::string Footer() {
  return std::string(kExample) + "\nCard kinds (or any code as two hexadecimal digits):\n" +
         KindHelp() + "\nCommands on standard input (A: address 0-F, HH: two hex digits):\n" +
         CommandHelp() + "\nLines on standard output:\n" + kLines + "\nFaults:\n" + kFaults +
         FaultHelp() + "\nReplies:\n" + kReplies + "\n" + kEnd;
}

// Puts "A=KIND" into the table; returns what is wrong with it, or an empty text, as CLI11 wants.
std::string TakeCard(const std::string& text, OPTIONS* options) {
  const size_t equals = std::min(text.find('='), text.size());
  const std::optional<unsigned char> address = ParseHexDigit(text.substr(0, equals));
  if (!address || equals == text.size()) return text + ": write A=KIND with A one of 0-F";
  const std::optional<unsigned char> code = ParseKind(text.substr(equals + 1));
  if (!code) return text + ": the kind is " + KindWords() + " or two hexadecimal digits";
  if (options->cards[*address] != 0) return text + ": this address has a card already";
  options->cards[*address] = *code;
  return {};
}

std::string CheckVersionText(const std::string& text) {
  const bool printable =
      std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
  return text.size() == 4 && printable ? "" : "the version text has four printable characters";
}

}  // namespace

bool ParseOptions(int argc, char** argv, OPTIONS* options, int* exitStatus) {
  CLI::App app(kDescription, "talp-cardsim");
  app.footer(Footer());
  std::vector<std::string> cards;
  app.add_option("--link", options->linkPath, "symbolic link to make, such as /dev/ttyUSB0")
      ->type_name("PATH");
  app.add_option("--card", cards, "card at address A (0-F); repeat for each card")
      ->type_name("A=KIND")
      ->allow_extra_args(false);
  app.add_option("--version-text", options->versionText, "answered to the identification handshake")
      ->type_name("VVVV")
      ->check(CheckVersionText)
      ->capture_default_str();
  app.add_flag("--silent", options->silent, "start with 'silence on'");
  app.add_flag("--frames", options->frames, "start with 'frames on'");
  try {
    app.parse(argc, argv);
    for (const std::string& card : cards) {
      const std::string why = TakeCard(card, options);
      if (!why.empty()) throw CLI::ValidationError("--card", why);
    }
  } catch (const CLI::ParseError& end) {
    *exitStatus = app.exit(end) == 0 ? 0 : kBadOptions;
    return false;
  }
  return true;
}

}  // namespace cardsim

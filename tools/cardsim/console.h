#ifndef CARDSIM_CONSOLE_H
#define CARDSIM_CONSOLE_H

#include <functional>
#include <string>

#include "cardsim/bytes.h"
#include "cardsim/card_bus.h"
#include "cardsim/fault_plan.h"

namespace cardsim {

// What the typed commands switch and the running simulator obeys.
struct SWITCHES {
  bool silent = false;
  bool frames = false;
  bool quit = false;
};

// The cable. Both return why they cannot, or an empty text, and append what they did.
struct CABLE {
  std::function<std::string(LINES* lines)> hangUp;
  // linkPath: empty for the link of before.
  std::function<std::string(const std::string& linkPath, LINES* lines)> comeBack;
};

// The typed commands: one line in, readable lines out.
class CONSOLE {
 public:
  CONSOLE(CARD_BUS* bus, FAULT_PLAN* faults, SWITCHES* switches, CABLE cable);

  // Carries out one line, given without its line end. Blank lines do nothing; a line that cannot
  // be carried out appends one line "error: ...".
  void Run(const std::string& line, LINES* lines);

 private:
  struct COMMAND;
  static const COMMAND kCommands[];
  friend std::string CommandHelp();

  // Each returns why it cannot, or an empty text. The words do not hold the command's name.
  std::string Set(const WORDS& words, LINES* lines);
  std::string Answer(const WORDS& words, LINES* lines);
  std::string Card(const WORDS& words, LINES* lines);
  std::string Fault(const WORDS& words, LINES* lines);
  std::string Silence(const WORDS& words, LINES* lines);
  std::string Frames(const WORDS& words, LINES* lines);
  std::string HangUp(const WORDS& words, LINES* lines);
  std::string Return(const WORDS& words, LINES* lines);
  std::string Show(const WORDS& words, LINES* lines);
  std::string Sync(const WORDS& words, LINES* lines);
  std::string Help(const WORDS& words, LINES* lines);
  std::string Quit(const WORDS& words, LINES* lines);
  CARD* FindCard(const std::string& digit);

  CARD_BUS* bus_;
  FAULT_PLAN* faults_;
  SWITCHES* switches_;
  CABLE cable_;
};

// The commands and their meaning, one a line.
std::string CommandHelp();

}  // namespace cardsim

#endif

#ifndef TALP_TOOLS_CARDSIM_CONSOLE_H_
#define TALP_TOOLS_CARDSIM_CONSOLE_H_

#include <unistd.h>

#include <string>

#include "cardsim/adapter.h"
#include "cardsim/card_bus.h"
#include "cardsim/fault_plan.h"
#include "cardsim/line_output.h"

// What the typed commands act on.
struct SIMULATOR {
  LINE_OUTPUT* out;
  CARD_BUS* bus;
  FAULT_PLAN* faults;
  ADAPTER* adapter;
  bool quit;
};

// The commands typed on standard input.
class CONSOLE {
 public:
  explicit CONSOLE(const SIMULATOR& simulator) : simulator_(simulator) {}

  int Descriptor() const { return input_; }  // -1 after the end of input

  // Reads what has been typed and carries out every line that is complete.
  void Read();

  // Whether the simulator is to end: after `quit`, and after the end of a terminal's input
  // (Ctrl-D). The end of a pipe or of /dev/null changes nothing, so that a bus can be left
  // running in the background.
  bool HasQuit() const { return simulator_.quit; }

 private:
  SIMULATOR simulator_;
  int input_ = STDIN_FILENO;
  std::string line_;  // being typed
};

#endif  // TALP_TOOLS_CARDSIM_CONSOLE_H_

#ifndef CARDSIM_OPTIONS_H
#define CARDSIM_OPTIONS_H

#include <array>
#include <string>

#include "cardsim/card_bus.h"

namespace cardsim {

struct OPTIONS {
  std::string linkPath;                                 // empty: no link
  std::array<unsigned char, CARD_BUS::kSlots> cards{};  // kind codes, 0 for an empty slot
  std::string versionText = "1.20";
  bool silent = false;
  bool frames = false;
};

// Reads the command line. True to go on; false to exit with *exitStatus, the help or what is
// wrong with the options (status 2) having been printed.
bool ParseOptions(int argc, char** argv, OPTIONS* options, int* exitStatus);

}  // namespace cardsim

#endif

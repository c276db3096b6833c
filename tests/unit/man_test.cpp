#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "master/cae_commands.h"
#include "master/help_texts.h"
#include "support.h"

namespace {

// The commands with their arguments as plain text; in mdoc(7) ".It Ic SPEED= Ns Ar ppp".
std::set<std::string> ManCommands() {
  std::istringstream page(ReadFile(TALP_MAN_DIR "/talp-cae.7"));
  std::set<std::string> commands;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind(".It Ic ", 0) != 0) continue;
    for (const char* word : {".It", " Ns", " Ic", " Ar", "\\&", " "})
      line = Replaced(line, word, "");
    commands.insert(line);
  }
  return commands;
}

std::set<std::string> HelpCommands() {
  std::set<std::string> commands = {"HELP"};  // it does not list itself
  for (const std::string& line : HelpLines()) {
    if (line.find("END OF CAE") != std::string::npos) break;
    if (line.rfind(" - ", 0) == 0) commands.insert(line.substr(3, line.find(' ', 3) - 3));
  }
  return commands;
}

TEST(ManPage, HasTheCommandsOfHelpAndOfTheConsole) {
  EXPECT_EQ(ManCommands(), HelpCommands());
  CARD_TABLE cards;
  TLQUEUE answers, others;
  SHARED<bool> polling;
  const auto nothing = [](auto...) {};
  CAE_CONSOLE console(
      CAE_CONTEXT{&cards, &answers, &others, &others, &polling, {}, "\n", "\n", nothing, nothing});
  for (const std::string& command : ManCommands()) {
    for (const std::string& typed : {command, command.substr(1)}) {  // not by a part of the name
      console.Execute(typed + "\n");
      EXPECT_EQ(TextOf(answers.DeQueue()).rfind("CIE: UNKNOWN", 0) == 0, typed != command) << typed;
      while (!answers.IsEmpty()) answers.DeQueue();
    }
  }
}

}  // namespace

#ifndef TALP_MASTER_CAE_CARD_COMMANDS_H_
#define TALP_MASTER_CAE_CARD_COMMANDS_H_

#include <string>

class CAE_CONSOLE;

// Runs the console's card command of `key` (one of those without a handler of their own) with the
// arguments in `line`: looks up the card, sends the request, waits one second and answers.
void RunCardCommand(const char* key, const std::string& line, CAE_CONSOLE* console);

#endif  // TALP_MASTER_CAE_CARD_COMMANDS_H_

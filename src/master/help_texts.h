#ifndef TALP_MASTER_HELP_TEXTS_H_
#define TALP_MASTER_HELP_TEXTS_H_

#include <string>
#include <vector>

// The answers to the console's HELP (69 lines) and IOEXAMPLES (22 lines), without separators. Any
// thread.
std::vector<std::string> HelpLines();
std::vector<std::string> IoExampleLines();

#endif  // TALP_MASTER_HELP_TEXTS_H_

#include "core/sleepsec.h"

#include <stdio.h>
#include <time.h>

#include <string>

void sleepsec(int seconds) {
  const std::string command = "sleep " + std::to_string(seconds);
  FILE* const shell = popen(command.c_str(), "re");
  if (shell != nullptr && pclose(shell) == 0) return;
  const timespec pause = {seconds, 0};
  nanosleep(&pause, nullptr);
}

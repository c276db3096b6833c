#include "core/sleepsec.h"

#include <stdio.h>
#include <sys/wait.h>
#include <time.h>

#include <string>

namespace {

// Exit statuses of a shell that could not execute the command or did not find it (sh(1)).
constexpr int kNotRunnable = 126;
constexpr int kNotFound = 127;

// True also if the status cannot be read, as with SIGCHLD ignored: the shell has run and ended.
bool CommandRan(int status) {
  if (status == -1 || !WIFEXITED(status)) return true;
  return WEXITSTATUS(status) != kNotRunnable && WEXITSTATUS(status) != kNotFound;
}

}  // namespace

void sleepsec(int seconds) {
  const std::string command = "sleep " + std::to_string(seconds);
  FILE* const shell = popen(command.c_str(), "re");
  if (shell != nullptr && CommandRan(pclose(shell))) return;
  const timespec pause = {seconds, 0};
  nanosleep(&pause, nullptr);
}

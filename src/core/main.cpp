#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "core/logger.h"
#include "core/paths.h"
#include "core/talp.h"
#include "thread/shared.h"

namespace {

// For the handler. Never freed: a signal can arrive until the process ends.
SHARED<int>* pSignalFlag = nullptr;

void SIGhandler(int signal) { *pSignalFlag = signal; }

// exit(3) is unsafe only against another exit(3), and only this thread calls it.
// NOLINTBEGIN(concurrency-mt-unsafe)

// Returns in a child with a session of its own; the parent ends here.
void BecomeDaemon() {
  const pid_t child = fork();
  if (child < 0) exit(1);
  if (child > 0) exit(0);
  setsid();
}

// The directory must exist. The daemon never removes the file.
void WritePidFile() {
  FILE* const file = fopen(kPidFile, "we");
  if (file == nullptr) {
    puts("Couldn't open pid file.");
    exit(1);
  }
  fprintf(file, "%d", static_cast<int>(getpid()));
  fclose(file);
}

void InstallSignalHandler() {
  pSignalFlag = new SHARED<int>(kNoSignal);
  signal(SIGINT, SIGhandler);
  signal(SIGTERM, SIGhandler);
  // A program inherits which signals are blocked. Blocked, these two could not stop the daemon.
  sigset_t handled;
  sigemptyset(&handled);
  sigaddset(&handled, SIGINT);
  sigaddset(&handled, SIGTERM);
  pthread_sigmask(SIG_UNBLOCK, &handled, nullptr);
}

}  // namespace

int main() {
  BecomeDaemon();
  WritePidFile();
  InstallSignalHandler();
  TALP talp(LOGGER(), pSignalFlag);
  if (!talp.InitProgramData()) exit(0);
  talp.InitInterfaces();
  talp.MasterThread();
  // A return would destroy objects that the tasks, which still run, are using.
  exit(0);
}

// NOLINTEND(concurrency-mt-unsafe)

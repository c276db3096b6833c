#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "core/logger.h"
#include "core/talp.h"
#include "thread/shared.h"

namespace {

constexpr char kPidFile[] = "/var/run/talp/talp.pid";

// For the handler; never freed, since the tasks run until the process is gone.
SHARED<int>* pSignalFlag = nullptr;

void SIGhandler(int signal) { *pSignalFlag = signal; }

// exit(3) races with another exit(3), and only this thread calls it.
// NOLINTBEGIN(concurrency-mt-unsafe)

// Goes on in a child of its own session; the parent ends here.
void BecomeDaemon() {
  const pid_t child = fork();
  if (child < 0) exit(1);
  if (child > 0) exit(0);
  setsid();
}

// The directory must exist. The file stays behind at every end.
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
  // Not a return: the tasks still run, and what they use must not be destroyed under them.
  exit(0);
}

// NOLINTEND(concurrency-mt-unsafe)

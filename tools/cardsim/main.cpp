#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include "cardsim/options.h"
#include "cardsim/simulator.h"

namespace {

volatile sig_atomic_t stopSignal = 0;

void RememberSignal(int signal) { stopSignal = signal; }

// Started without one of the descriptors 0 to 2, the program would give its number to the pty.
void FillStandardDescriptors() {
  int descriptor = STDIN_FILENO;
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = open("/dev/null", O_RDWR);
  if (descriptor > STDERR_FILENO) close(descriptor);
}

// Blocks the stop signals everywhere but in the main loop's wait, so that none is missed between
// two waits and no other thread takes one. Returns the mask of that wait.
sigset_t HandleSignals() {
  struct sigaction action {};
  action.sa_handler = RememberSignal;
  sigset_t stops;
  sigemptyset(&stops);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    sigaction(signal, &action, nullptr);
    sigaddset(&stops, signal);
  }
  sigset_t waitMask;
  pthread_sigmask(SIG_BLOCK, &stops, &waitMask);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigdelset(&waitMask, signal);
  // A reader of the lines may go, and in the background of a terminal nothing is typed; neither
  // may end or stop the bus.
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  for (const int signal : {SIGPIPE, SIGTTIN, SIGTTOU}) sigaction(signal, &ignore, nullptr);
  return waitMask;
}

// The master waits for a reply in a busy loop, some tens of milliseconds on a pty: on a loaded
// machine a bus at normal priority may get the processor too late. Allowed or not, it runs.
void RaisePriority() {
  sched_param priority{};
  priority.sched_priority = sched_get_priority_min(SCHED_RR);
  if (sched_setscheduler(0, SCHED_RR, &priority) == 0) return;
  constexpr int kFavoured = -10;
  setpriority(PRIO_PROCESS, 0, kFavoured);
}

}  // namespace

int main(int argc, char** argv) {
  FillStandardDescriptors();
  cardsim::OPTIONS options;
  int exitStatus = 0;
  if (!cardsim::ParseOptions(argc, argv, &options, &exitStatus)) return exitStatus;
  const sigset_t waitMask = HandleSignals();
  cardsim::SIMULATOR simulator(options);
  // After the output thread has started: it stays at normal priority.
  RaisePriority();
  const std::string why = simulator.Start();
  if (!why.empty()) {
    std::cerr << "talp-cardsim: " << why << '\n';
    return 1;
  }
  simulator.Run(waitMask, &stopSignal);
  return 0;
}

#include <signal.h>

#include "core/byte_list.h"
#include "core/sleepsec.h"
#include "core/talp.h"
#include "master/cae_commands.h"
#include "thread/sleep.h"

namespace {

void Append(const std::string& text, BYTE_LIST* list) {
  list->insert(list->end(), text.begin(), text.end());
}

bool HasClient(const SOCKET_INTERFACE& interface) {
  return interface.descriptor.state == Connected;
}

}  // namespace

// Each cycle takes at most one item of each stream, always in this order: the delay sets the
// throughput of all of them. A console command that waits for a card holds up the others.
void TALP::MasterThread() {
  CAE_CONSOLE console({&cards_,
                       &cae_->outputQueue,
                       &serial_->busQueues[kBusCommandQueue],
                       &cardInput_,
                       &serial_->globalPolling,
                       {&masterDelay_, &serial_->threadDelay, &cae_->descriptor.delay,
                        &io_->descriptor.delay, &mon_->descriptor.delay},
                       config_.cae.inpSeparator,
                       config_.cae.outSeparator,
                       sleepsec,
                       [this] { cae_->CloseByCommand(); }});
  for (;;) {
    PauseMicroseconds(masterDelay_);
    if (StopSignalled()) return;
    ForwardCardInput();
    HandleIoMessage();
    HandleCaeLine(&console);
  }
}

bool TALP::StopSignalled() {
  const int number = *signalFlag_;
  if (number == kNoSignal) return false;
  cae_->mf_SIGhandler(number);
  io_->mf_SIGhandler(number);
  mon_->mf_SIGhandler(number);
  serial_->mf_SIGhandler(number);
  if (number != SIGINT && number != SIGTERM) return false;
  logger_.LOG(kInfo, "talp is stopped by SIGTERM or SIGINT", kLogLevel);
  return true;
}

// Without an IO client the monitor gets nothing either: deliberate, it shows the IO traffic.
void TALP::ForwardCardInput() {
  if (cardInput_.IsEmpty()) return;
  BYTE_LIST line = cardInput_.DeQueue();
  if (!HasClient(*io_)) return;
  Append(config_.io.outSeparator, &line);
  io_->outputQueue.ToQueue(line);
  if (HasClient(*mon_)) mon_->outputQueue.ToQueue(line);
}

void TALP::HandleIoMessage() {
  if (ioInput_.IsEmpty()) return;
  const BYTE_LIST message = ioInput_.DeQueue();
  if (Convert_QList2String(message) == "EXIT" + config_.io.inpSeparator) {
    CloseIoClient();
    return;
  }
  ParseOutCommand(message);
  if (HasClient(*mon_)) mon_->outputQueue.ToQueue(message);
}

void TALP::CloseIoClient() {
  io_->outputQueue.ToQueue(Convert_String2QList(kFarewell + config_.io.outSeparator));
  sleepsec(kFarewellPause);
  io_->CloseByCommand();
}

void TALP::HandleCaeLine(CAE_CONSOLE* console) {
  if (caeInput_.IsEmpty()) return;
  console->Execute(Convert_QList2String(caeInput_.DeQueue()));
}

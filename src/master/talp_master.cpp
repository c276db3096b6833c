#include <signal.h>

#include <cstddef>
#include <cstdio>

#include "core/byte_list.h"
#include "core/log_texts.h"
#include "core/sleepsec.h"
#include "core/talp.h"
#include "master/cae_commands.h"
#include "net/io_command.h"
#include "thread/sleep.h"

namespace {

void Append(const std::string& text, BYTE_LIST* list) {
  list->insert(list->end(), text.begin(), text.end());
}

bool HasClient(const SOCKET_INTERFACE& interface) {
  return interface.descriptor.state == InterfaceState::Connected;
}

}  // namespace

CAE_CONTEXT TALP::ConsoleContext() {
  CAE_CONTEXT context;
  context.cards = &cards_;
  context.answers = &cae_->outputQueue;
  context.busCommands = &serial_->busQueues[kBusCommandQueue];
  context.cardInput = &cardInput_;
  context.globalPolling = &serial_->globalPolling;
  context.delays = {&masterDelay_, &serial_->threadDelay, &cae_->descriptor.delay,
                    &io_->descriptor.delay, &mon_->descriptor.delay};
  context.inpSeparator = cae_->descriptor.inpSeparator;
  context.outSeparator = cae_->descriptor.outSeparator;
  context.wait = sleepsec;
  context.closeClient = [this] { cae_->CloseByCommand(); };
  return context;
}

// Each cycle takes at most one item of each stream, always in this order, so the delay limits the
// throughput of all of them. While a console command waits for a card, the other streams wait too.
void TALP::MasterThread() {
  CAE_CONSOLE console(ConsoleContext());
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
  logger_.LOG(kInfo, kLogStopped, kLogLevel);
  return true;
}

// The monitor shows what the IO client receives, so without an IO client it gets nothing.
void TALP::ForwardCardInput() {
  if (cardInput_.IsEmpty()) return;
  BYTE_LIST line = cardInput_.DeQueue();
  if (!HasClient(*io_)) return;
  Append(io_->descriptor.outSeparator, &line);
  io_->outputQueue.ToQueue(line);
  if (HasClient(*mon_)) mon_->outputQueue.ToQueue(line);
}

void TALP::HandleIoMessage() {
  if (ioInput_.IsEmpty()) return;
  const BYTE_LIST message = ioInput_.DeQueue();
  if (Convert_QList2String(message) == "EXIT" + io_->descriptor.inpSeparator) {
    CloseIoClient();
    return;
  }
  ParseOutCommand(message);
  if (HasClient(*mon_)) mon_->outputQueue.ToQueue(message);
}

void TALP::CloseIoClient() {
  io_->outputQueue.ToQueue(Convert_String2QList(kFarewell + io_->descriptor.outSeparator));
  sleepsec(kFarewellPause);
  io_->CloseByCommand();
}

int TALP::ParseOutCommand(const BYTE_LIST& message) {
  const std::string text = Convert_QList2String(message);
  for (const std::string& command : SplitCommands(text, io_->descriptor.inpSeparator)) {
    // The failure of one command does not stop the following ones. Errors are raised as integers;
    // no conversion raises one today.
    try {
      ExecuteIoCommand(command);
    } catch (int code) {
      std::printf("Caught an exception -- value is: %d\nka>%s<\n", code, command.c_str());
      ReportOnConsole("COE:Parser exception -> ", command);
    }
  }
  return 1;
}

void TALP::ExecuteIoCommand(const std::string& command) {
  IO_REQUEST request;
  {
    MUTEX_GUARD guard(&cards_.lock);
    request = ParseIoCommand(command, cards_.cards);
  }
  if (request.legal) {
    serial_->busQueues[static_cast<std::size_t>(request.address)].ToQueue(request.payload);
  } else {
    ReportOnConsole("COE:Illegal command -> ", command);
  }
}

// Queued even if the console has no client: the next client receives it.
void TALP::ReportOnConsole(const std::string& error, const std::string& command) {
  const std::string& separator = cae_->descriptor.outSeparator;
  cae_->outputQueue.ToQueue(Convert_String2QList(error + command + separator));
  cae_->outputQueue.ToQueue(Convert_String2QList(kPrompt + separator));
}

void TALP::HandleCaeLine(CAE_CONSOLE* console) {
  if (caeInput_.IsEmpty()) return;
  console->Execute(Convert_QList2String(caeInput_.DeQueue()));
}

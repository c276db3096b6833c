#include <cstddef>
#include <cstdio>

#include "core/talp.h"
#include "net/io_command.h"

int TALP::ParseOutCommand(const BYTE_LIST& message) {
  const std::string text = Convert_QList2String(message);
  for (const std::string& command : SplitCommands(text, config_.io.inpSeparator)) {
    // One command's failure never stops those behind it. An integer is what a conversion that
    // raises would raise; none of today's does.
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

// Queued whether or not the console has a client: the next one is told.
void TALP::ReportOnConsole(const std::string& error, const std::string& command) {
  const std::string& separator = config_.cae.outSeparator;
  cae_->outputQueue.ToQueue(Convert_String2QList(error + command + separator));
  cae_->outputQueue.ToQueue(Convert_String2QList(">" + separator));
}

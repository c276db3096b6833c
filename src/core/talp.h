#ifndef TALP_CORE_TALP_H_
#define TALP_CORE_TALP_H_

#include <memory>
#include <string>

#include "bus/serial_interface.h"
#include "bus/tlqueue.h"
#include "core/config.h"
#include "core/logger.h"
#include "master/card_table.h"
#include "net/socket_interface.h"
#include "thread/shared.h"

class CAE_CONSOLE;
struct CAE_CONTEXT;

constexpr int kNoSignal = -1;  // the signal flag before the first signal

// The main object: owns all others, starts them and routes traffic between them. The main thread
// calls all operations.
class TALP {
 public:
  // `signalFlag` holds kNoSignal or the number of the last signal, and must outlive the object.
  TALP(const LOGGER& logger, SHARED<int>* signalFlag);

  // Stops and joins all tasks. Not called in the daemon, which ends by exit(3).
  ~TALP();

  // Reads the configuration and logs the start. False, with a log line, if there is an error in it.
  bool InitProgramData();

  // Creates and starts the listening interfaces and the serial link. The failure of one does not
  // affect the others.
  void InitInterfaces();

  // The master loop. Returns after SIGINT or SIGTERM.
  void MasterThread();

  // Turns a message of the IO client into requests for the cards. Reports illegal commands on the
  // console. Always returns 1.
  int ParseOutCommand(const BYTE_LIST& message);

 private:
  static CONFIG_DESCRIPTOR ReadConfig();
  void LogStart(const char* parameter, const std::string& value);
  std::unique_ptr<SOCKET_INTERFACE> StartInterface(const INTERFACE_DESCRIPTOR& descriptor,
                                                   TLQUEUE* inputQueue);
  CAE_CONTEXT ConsoleContext();
  bool StopSignalled();
  void ForwardCardInput();
  void HandleIoMessage();
  void CloseIoClient();
  void HandleCaeLine(CAE_CONSOLE* console);
  void ExecuteIoCommand(const std::string& command);
  void ReportOnConsole(const std::string& error, const std::string& command);

  // Destroyed from last to first: the tasks before what they use.
  LOGGER logger_;
  CONFIG_DESCRIPTOR config_;
  TLQUEUE ioInput_;
  TLQUEUE caeInput_;
  TLQUEUE monInput_;  // never read
  TLQUEUE cardInput_;
  SHARED<int>* const signalFlag_;
  SHARED<int> masterDelay_ = kDefaultDelay;  // microseconds
  CARD_TABLE cards_;
  std::unique_ptr<SERIAL_INTERFACE> serial_;
  std::unique_ptr<SOCKET_INTERFACE> mon_;
  std::unique_ptr<SOCKET_INTERFACE> io_;
  std::unique_ptr<SOCKET_INTERFACE> cae_;
};

#endif  // TALP_CORE_TALP_H_

#ifndef TALP_NET_SOCKET_INTERFACE_H_
#define TALP_NET_SOCKET_INTERFACE_H_

#include "bus/tlqueue.h"
#include "core/config.h"
#include "core/file_descriptor.h"
#include "core/logger.h"
#include "net/client_framing.h"
#include "thread/cthread.h"
#include "thread/mutex.h"
#include "thread/shared.h"

// The task of one TCP listening endpoint, which serves one client at a time. It does not interpret
// messages: what the client sends goes to the input queue, what is on the output queue goes to the
// client. Its own thread calls the operations, unless their comment names another.
class SOCKET_INTERFACE final : public CThread {
 public:
  // `inputQueue` must outlive the object. The thread runs when this returns, but nothing listens
  // before Init.
  SOCKET_INTERFACE(const INTERFACE_DESCRIPTOR& settings, const LOGGER& logger, TLQUEUE* inputQueue,
                   FramingMode framingMode);
  ~SOCKET_INTERFACE();

  using CThread::OnTask;

  // Opens, binds and listens. If the port is taken, that is logged and the interface listens on a
  // port that the system chooses. False, with a log line, if it does not listen. The creating
  // thread calls this once; after that the interface listens again by itself.
  bool Init();

  // One cycle. Always true.
  bool OnTask() override;

  // Ends the client's connection and stops listening until the interface listens again by itself.
  // Any thread but its own.
  void CloseByCommand();

  // The shutdown hook: only logs, because the end of the process ends the task. Any thread.
  void mf_SIGhandler(int signal);

  // Any thread may read the state and the delay, and change the delay.
  INTERFACE_DESCRIPTOR descriptor;

  // Messages for the client. Any thread may put.
  TLQUEUE outputQueue;

 private:
  void AcceptClient();
  void Greet();
  void ServeClient();
  bool ReceiveFromClient();
  void Deliver();
  void Reopen();
  void Park();
  FILE_DESCRIPTOR OpenListener();
  bool Listen(int reopenCounter);
  int ReopenCounter();
  bool KeepListener(FILE_DESCRIPTOR listener, int reopenCounter);
  void KeepClient(FILE_DESCRIPTOR client);
  void SetClosed();
  void ShutDownSockets();
  void CloseSockets();
  void LogInterface(const char* caption, const char* text);

  LOGGER logger_;
  TLQUEUE* const inputQueue_;
  const FramingMode framingMode_;

  // Only the task opens and closes the sockets. Other threads shut them down, which ends the call
  // in which the task is blocked. The lock keeps the task from closing a socket, whose number could
  // be reused, while another thread shuts it down. It also guards the reopen counter, and changes
  // of the state that depend on it or could collide with a close by command.
  CMutexClass socketLock_;
  FILE_DESCRIPTOR listener_;
  FILE_DESCRIPTOR client_;
  int reopenCounter_ = 0;  // cycles in the closed state since the last close
  bool ending_ = false;    // the object is being destroyed: sockets are shut down at once
};

#endif  // TALP_NET_SOCKET_INTERFACE_H_

#ifndef TALP_NET_SOCKET_INTERFACE_H_
#define TALP_NET_SOCKET_INTERFACE_H_

#include "bus/tlqueue.h"
#include "core/config.h"
#include "core/logger.h"
#include "net/client_framing.h"
#include "thread/cthread.h"
#include "thread/mutex.h"
#include "thread/shared.h"

// The task of one TCP listening endpoint and of the one client that it serves at a time. It does
// not look into messages: what the client sends goes to the input queue, what stands on the output
// queue goes to the client. Operations without another word are its own thread's.
class SOCKET_INTERFACE final : public CThread {
 public:
  // `inputQueue` must outlive the object. The thread runs when this returns, but nothing listens
  // before Init.
  SOCKET_INTERFACE(const INTERFACE_DESCRIPTOR& settings, const LOGGER& logger, TLQUEUE* inputQueue,
                   int framingMode);
  ~SOCKET_INTERFACE();

  using CThread::OnTask;

  // Opens, binds and listens. A port that is taken is logged, and the interface then listens on
  // one that the system chooses. False, with a log line, if it does not listen. Called once by the
  // creating thread, from then on by the interface's own.
  bool Init();

  // One cycle. Always true.
  bool OnTask() override;

  // Ends the client's connection and stops listening until the interface opens again by itself.
  // Any other thread.
  void CloseByCommand();

  // The shutdown hook: only logs, since the end of the process ends the task. Any thread.
  void mf_SIGhandler(int signal);

  // Its state and delay may be read by any thread; the delay may be changed at any time.
  INTERFACE_DESCRIPTOR descriptor;

  // Messages for the client. Any thread puts.
  TLQUEUE outputQueue;

 private:
  void AcceptClient();
  void ServeClient();
  bool ReceiveFromClient();
  bool Advance(InterfaceState from, InterfaceState to);
  void Deliver();
  void Reopen();
  void Park();
  int OpenListener();
  void KeepListener(int listener);
  void KeepClient(int client);
  void ShutDownSockets();
  void CloseSockets();
  void LogInterface(const char* caption, const char* text);

  LOGGER logger_;
  TLQUEUE* const inputQueue_;
  const int framingMode_;
  SHARED<int> reopenCounter_ = 0;  // cycles in the closed state since the last close

  // While the task runs, it alone closes the sockets. Other threads shut them down, which wakes
  // whatever the task is blocked in; the lock keeps a number from being closed, and from becoming
  // somebody else's, in the meantime. The state is changed under it where both sides may.
  CMutexClass socketLock_;
  int listener_ = -1;
  int client_ = -1;
  bool ending_ = false;  // the object is being destroyed: nothing may block any more
};

#endif  // TALP_NET_SOCKET_INTERFACE_H_

#ifndef TALP_BUS_SERIAL_INTERFACE_H_
#define TALP_BUS_SERIAL_INTERFACE_H_

#include <array>
#include <cstddef>
#include <string>

#include "bus/tlqueue.h"
#include "core/byte_list.h"
#include "core/logger.h"
#include "master/card_table.h"
#include "thread/cthread.h"
#include "thread/shared.h"

enum LinkState : int {
  kDisconnected = 0,
  kTrying = 1,  // a device is open and being tried
  kLinked = 3
};

enum SearchMode : int {
  kStoredDevice = 1,
  kAllDevices = 2  // what the daemon always does
};

constexpr std::size_t kBusCommandQueue = 16;  // behind the poll queues of the 16 addresses
constexpr std::size_t kBusQueueCount = 17;

// The task that owns the card bus: it connects, sends what is queued for the bus, one exchange at
// a time, applies the answers to the card table, and keeps the input cards polled. All operations
// without another word are its own thread's.
class SERIAL_INTERFACE final : public CThread {
 public:
  // `cardInput` and `cards` must outlive the object. The thread runs when this returns.
  SERIAL_INTERFACE(const std::string& device, const LOGGER& logger, TLQUEUE* cardInput,
                   CARD_TABLE* cards, bool pollEnable, bool autoDiscover);
  ~SERIAL_INTERFACE();

  using CThread::OnTask;

  // One cycle. Always true.
  bool OnTask() override;

  // Finds and opens an adapter behind which a card bus answers. True when linked.
  bool Init();

  // Sets up the line of the open tty. False, with a log line, if that fails.
  bool SetSerialParams();

  // Whether something answers the handshake on the open tty, `device`; any answer will do.
  bool HardwareCheck(const std::string& device);

  // One exchange: the reply's payload, or a made-up reply (bus/frame.h) where there is none. Waits
  // by reading without a pause, for as many attempts as the request is worth.
  BYTE_LIST Comm2HW(const BYTE_LIST& request);

  // The shutdown hook: logs, and has the tty closed before its next use. Any thread.
  void mf_SIGhandler(int signal);

  // Request payloads for the bus, by address and then kBusCommandQueue. Any thread puts.
  std::array<TLQUEUE, kBusQueueCount> busQueues;

  // Settings that the master may change at any time.
  SHARED<bool> globalPolling;
  SHARED<int> threadDelay;  // microseconds

 private:
  void Connect();
  bool InitStoredDevice();
  bool InitFirstAnsweringDevice();
  bool TryOpenDevice();
  void ServeQueues();
  bool Serve(TLQUEUE* queue);
  void QueuePolls();
  void ApplyReply(const BYTE_LIST& reply);
  void WriteToQueue(int address);
  void CloseTty();

  LOGGER logger_;
  std::string device_;
  int tty_ = -1;
  int linkState_ = kDisconnected;
  const int searchMode_ = kAllDevices;
  TLQUEUE* const cardInput_;
  CARD_TABLE* const cards_;
  const bool autoDiscover_;
  SHARED<bool> closeRequested_ = false;
};

#endif  // TALP_BUS_SERIAL_INTERFACE_H_

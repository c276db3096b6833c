#ifndef TALP_BUS_SERIAL_INTERFACE_H_
#define TALP_BUS_SERIAL_INTERFACE_H_

#include <array>
#include <cstddef>
#include <string>

#include "bus/frame.h"
#include "bus/tlqueue.h"
#include "core/byte_list.h"
#include "core/file_descriptor.h"
#include "core/logger.h"
#include "master/card_table.h"
#include "thread/cthread.h"
#include "thread/shared.h"

enum class LINK_STATE : int {
  kDisconnected = 0,
  kTrying = 1,  // a device is open and being tried
  kConnected = 3
};

enum class SEARCH_MODE : int {
  kStoredDevice = 1,
  kAllDevices = 2  // what the daemon always does
};

constexpr std::size_t kBusCommandQueue = 16;  // after the poll queues of the 16 addresses
constexpr std::size_t kBusQueueCount = 17;

// The task that owns the card bus. It connects, sends what is queued for the bus, one exchange at a
// time, applies the answers to the card table, and polls the input cards. Its own thread calls the
// operations, unless their comment names another.
class SERIAL_INTERFACE final : public CThread {
 public:
  // `cardInput` and `cards` must outlive the object. The thread runs when this returns.
  SERIAL_INTERFACE(const std::string& device, const LOGGER& logger, TLQUEUE* cardInput,
                   CARD_TABLE* cards, bool pollEnable, bool autoDiscover);
  ~SERIAL_INTERFACE();

  using CThread::OnTask;

  // One cycle. Always true.
  bool OnTask() override;

  // Finds and opens an adapter behind which a card bus answers. True if connected.
  bool Init();

  // Sets up the line of the open tty. False, with a log line, if that fails.
  bool SetSerialParams();

  // Whether anything answers the handshake on the open tty, whose path is `device`.
  bool HardwareCheck(const std::string& device);

  // One exchange. Returns the reply's payload, or a synthetic reply (bus/frame.h) if there is none.
  // Waits by reading without a pause, for the number of attempts that REPLY_WAIT gives the request.
  BYTE_LIST Comm2HW(const BYTE_LIST& request);

  // Queues an input line for every changed block of the card that sent `answer`. Byte 1 of the
  // answer is the card's address; nothing is queued if it is above 15. The caller holds the card
  // table's lock.
  void WriteToQueue(const REPLY& answer);

  // The shutdown hook: logs, and makes the task close the tty before its next exchange. Any thread.
  void mf_SIGhandler(int signal);

  // Request payloads for the bus: one queue per address, then kBusCommandQueue. Any thread may put.
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

  LOGGER logger_;
  std::string device_;
  FILE_DESCRIPTOR tty_;
  LINK_STATE linkState_ = LINK_STATE::kDisconnected;
  const SEARCH_MODE searchMode_ = SEARCH_MODE::kAllDevices;
  TLQUEUE* const cardInput_;
  CARD_TABLE* const cards_;
  const bool autoDiscover_;
  SHARED<bool> closeRequested_ = false;
};

#endif  // TALP_BUS_SERIAL_INTERFACE_H_

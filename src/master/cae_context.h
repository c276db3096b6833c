#ifndef TALP_MASTER_CAE_CONTEXT_H_
#define TALP_MASTER_CAE_CONTEXT_H_

#include <array>
#include <functional>
#include <string>

#include "bus/tlqueue.h"
#include "core/byte_list.h"
#include "master/card_table.h"
#include "thread/shared.h"

constexpr char kPrompt[] = ">";  // ends every answer

// What the commands of the console work on. All pointers must outlive the console.
struct CAE_CONTEXT {
  CARD_TABLE* cards = nullptr;
  TLQUEUE* answers = nullptr;      // to the console's client
  TLQUEUE* busCommands = nullptr;  // request payloads for the card bus
  TLQUEUE* cardInput = nullptr;    // input lines for IO clients
  SHARED<bool>* globalPolling = nullptr;
  std::array<SHARED<int>*, 5> delays{};  // of every loop, in microseconds
  std::string inpSeparator;
  std::string outSeparator;
  std::function<void(int seconds)> wait;
  std::function<void()> closeClient;

  // Queues `text` and the separator as one message for the console's client.
  void Answer(const std::string& text) const {
    answers->ToQueue(Convert_String2QList(text + outSeparator));
  }
};

#endif  // TALP_MASTER_CAE_CONTEXT_H_

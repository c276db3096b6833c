#ifndef TALP_MASTER_CAE_COMMANDS_H_
#define TALP_MASTER_CAE_COMMANDS_H_

#include <array>
#include <cstddef>
#include <functional>
#include <string>

#include "bus/tlqueue.h"
#include "master/card_table.h"
#include "thread/shared.h"

// What a client is told before its connection is closed by command, and how long it has to read it.
constexpr char kFarewell[] = "TALP: Bye Bye...";
constexpr int kFarewellPause = 1;  // seconds

constexpr std::size_t kMaxCardCommands = 16;

// What the console works on. All pointers must outlive the console.
struct CAE_CONTEXT {
  CARD_TABLE* cards;
  TLQUEUE* answers;      // to the console's client
  TLQUEUE* busCommands;  // request payloads for the card bus
  TLQUEUE* cardInput;    // input lines for IO clients
  SHARED<bool>* globalPolling;
  std::array<SHARED<int>*, 5> delays;  // of every loop, in microseconds
  std::string inpSeparator;
  std::string outSeparator;
  std::function<void(int seconds)> wait;
  std::function<void()> closeClient;
};

// The command console. One thread only.
class CAE_CONSOLE {
 public:
  explicit CAE_CONSOLE(const CAE_CONTEXT& context) : context_(context) {}

  // Runs every command that matches `line`, in the order of the command table, and puts the
  // answers and the prompt, or the answer to an unknown command, on the queue of answers. Blocks
  // for the seconds that a command waits.
  void Execute(const std::string& line);

  // For the commands. Queues `text` and the separator as one message.
  void Answer(const std::string& text);

  CAE_CONTEXT& Context() { return context_; }

  // The state byte that a card command last derived from ON or OFF, by the command's place in its
  // table.
  unsigned char& RememberedState(std::size_t command) { return rememberedStates_[command]; }

 private:
  CAE_CONTEXT context_;
  std::array<unsigned char, kMaxCardCommands> rememberedStates_{};
};

#endif  // TALP_MASTER_CAE_COMMANDS_H_

#ifndef CARDSIM_SIMULATOR_H
#define CARDSIM_SIMULATOR_H

#include <signal.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "cardsim/card_bus.h"
#include "cardsim/console.h"
#include "cardsim/fault_plan.h"
#include "cardsim/frame_assembler.h"
#include "cardsim/line_output.h"
#include "cardsim/options.h"
#include "cardsim/pty_line.h"

namespace cardsim {

// The running program: carries bytes between pty, bus and typed commands, on one thread.
class SIMULATOR {
 public:
  explicit SIMULATOR(const OPTIONS& options);

  // Opens the line and prints "ready ...". Returns what failed, or an empty text.
  std::string Start();

  // Runs until `quit` is typed, a terminal's end of input, or *stop becomes nonzero by a signal.
  // Those signals must be blocked; waitMask is the signal mask in which they are let in.
  void Run(const sigset_t& waitMask, const volatile sig_atomic_t* stop);

 private:
  using CLOCK = std::chrono::steady_clock;
  struct TIMED_PIECE {
    CLOCK::time_point due;
    BYTES bytes;
  };

  std::string HangUp(LINES* lines);
  std::string ComeBack(const std::string& linkPath, LINES* lines);
  std::string OpenLine(const std::string& linkPath, LINES* lines);
  void ReadBus();
  void TakeFrame(const BYTES& payload);
  void Send(const BYTES& bytes);
  void SendDue();
  void DropStalePartial();
  void ReadCommands();
  void TakeCommandBytes(const char* bytes, size_t count);
  std::optional<CLOCK::time_point> NextDeadline() const;

  CARD_BUS bus_;
  FAULT_PLAN faults_;
  SWITCHES switches_;
  CONSOLE console_;
  FRAME_ASSEMBLER assembler_;
  CLOCK::time_point lastByte_;
  std::vector<TIMED_PIECE> later_;
  std::string lastLink_;
  PTY_LINE line_;
  bool inputOpen_ = true;
  std::string command_;        // the line being typed
  bool overlongLine_ = false;  // skips to its end
  LINES lines_;
  LINE_OUTPUT output_;
};

}  // namespace cardsim

#endif

#ifndef TALP_TOOLS_CARDSIM_ADAPTER_H_
#define TALP_TOOLS_CARDSIM_ADAPTER_H_

#include <chrono>
#include <map>
#include <string>

#include "cardsim/bytes.h"
#include "cardsim/card_bus.h"
#include "cardsim/fault_plan.h"
#include "cardsim/line_output.h"

// The adapter that the bus is behind: a raw pty (pty(7)) and a symbolic link to its slave. Takes
// requests from it and puts replies on it.
class ADAPTER {
 public:
  using CLOCK = std::chrono::steady_clock;

  // showFrames: print each frame as a line "rx" or "tx".
  ADAPTER(CARD_BUS* bus, FAULT_PLAN* faults, LINE_OUTPUT* out, bool showFrames);
  ~ADAPTER() { Close(); }
  ADAPTER(const ADAPTER&) = delete;
  ADAPTER& operator=(const ADAPTER&) = delete;

  // Makes the pty, links it at linkPath, or where it was before for an empty text, and prints
  // "ready ...". A symbolic link that is already there is replaced, anything else is left alone.
  // Returns why it cannot, or an empty text.
  std::string PlugIn(const std::string& linkPath);

  // Pty and link vanish, and the late replies with them; the other side sees a hang-up. Returns
  // why it cannot, or an empty text.
  std::string PullOut();

  int Descriptor() const { return master_; }  // -1 while pulled out

  // Answers the requests that have come. Never waits.
  void Receive();

  // Sends the late pieces that are due. Returns the milliseconds to the next one, or -1.
  int SendLatePieces();

 private:
  bool OpenPty();
  bool MakeLink(const std::string& path);
  void Close();
  void TakeFrame(const BYTES& frame);
  void Send(const BYTES& bytes);

  CARD_BUS* const bus_;
  FAULT_PLAN* const faults_;
  LINE_OUTPUT* const out_;
  const bool showFrames_;
  int master_ = -1;
  // Held open so that a program that closes its side is no hang-up of the pty, and so that the
  // raw setting lasts from one opening to the next.
  int slave_ = -1;
  std::string slavePath_;
  std::string linkPath_;
  BYTES received_;  // a request of which not all has come
  CLOCK::time_point lastReceived_;
  std::multimap<CLOCK::time_point, BYTES> latePieces_;
};

#endif  // TALP_TOOLS_CARDSIM_ADAPTER_H_

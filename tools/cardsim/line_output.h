#ifndef CARDSIM_LINE_OUTPUT_H
#define CARDSIM_LINE_OUTPUT_H

#include <memory>
#include <string>

#include "cardsim/bytes.h"

namespace cardsim {

// Standard output, written by a thread of its own: a reader that stops reading, or a terminal
// that is held, must not keep the bus from answering. Up to 1 MiB waits for a slow reader; lines
// beyond that are lost and the next line that fits is preceded by "lost N lines". When nobody can
// read any more (EPIPE) everything is dropped.
class LINE_OUTPUT {
 public:
  LINE_OUTPUT();
  // Waits up to a second for what is still to be written.
  ~LINE_OUTPUT();
  LINE_OUTPUT(const LINE_OUTPUT&) = delete;
  LINE_OUTPUT& operator=(const LINE_OUTPUT&) = delete;

  // Queues the lines, each with a line end, and empties the list. Never waits for the reader.
  void Print(LINES* lines);

 private:
  struct STATE;
  static void Write(std::shared_ptr<STATE> state);

  std::shared_ptr<STATE> state_;
};

}  // namespace cardsim

#endif

#ifndef CARDSIM_FRAME_ASSEMBLER_H
#define CARDSIM_FRAME_ASSEMBLER_H

#include "cardsim/bytes.h"

namespace cardsim {

// Cuts the byte stream of the bus into frames: one length byte, then that many payload bytes.
class FRAME_ASSEMBLER {
 public:
  void Append(const unsigned char* bytes, size_t count);

  // Moves the payload of the oldest complete frame to *payload; false when there is none.
  bool Next(BYTES* payload);

  // The bytes of a frame whose rest has not come; empty between frames. Nothing on the wire marks
  // where a frame begins, so only Drop after a pause finds the way back from a broken one.
  const BYTES& Partial() const { return pending_; }
  void Drop() { pending_.clear(); }

 private:
  BYTES pending_;
};

}  // namespace cardsim

#endif

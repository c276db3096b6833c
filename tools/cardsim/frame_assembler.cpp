#include "cardsim/frame_assembler.h"

namespace cardsim {

void FRAME_ASSEMBLER::Append(const unsigned char* bytes, size_t count) {
  pending_.insert(pending_.end(), bytes, bytes + count);
}

bool FRAME_ASSEMBLER::Next(BYTES* payload) {
  if (pending_.empty() || pending_.size() <= pending_[0]) return false;
  const auto end = pending_.begin() + 1 + pending_[0];
  payload->assign(pending_.begin() + 1, end);
  pending_.erase(pending_.begin(), end);
  return true;
}

}  // namespace cardsim

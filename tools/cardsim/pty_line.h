#ifndef CARDSIM_PTY_LINE_H
#define CARDSIM_PTY_LINE_H

#include <sys/types.h>

#include <string>

namespace cardsim {

// The adapter's tty: a raw pty (pty(7)) and a symbolic link to its slave.
class PTY_LINE {
 public:
  PTY_LINE() = default;
  ~PTY_LINE() { Close(); }
  PTY_LINE(const PTY_LINE&) = delete;
  PTY_LINE& operator=(const PTY_LINE&) = delete;

  // Makes a pty and, unless linkPath is empty, links it there in one step; a symbolic link that
  // is already there is replaced, anything else is left alone. Returns what failed, or an empty
  // text. The line must be closed.
  std::string Open(const std::string& linkPath);

  // Ends the pty, which the other side sees as a hang-up, and takes the link away if it still
  // leads here. Harmless on a closed line.
  void Close();

  bool IsOpen() const { return master_ >= 0; }
  int Descriptor() const { return master_; }  // -1 when closed
  const std::string& SlavePath() const { return slavePath_; }
  const std::string& LinkPath() const { return linkPath_; }

  // Reads what is there without waiting. Returns the count, 0 for nothing, -1 for a broken line.
  ssize_t Read(unsigned char* bytes, size_t room);

  // Writes without waiting. What does not fit is lost, as on a wire that nobody reads.
  void Write(const unsigned char* bytes, size_t count);

 private:
  std::string OpenPty();
  std::string Link(const std::string& linkPath);

  int master_ = -1;
  // Held open so that a master program that closes its side is no hang-up of the pty, and so that
  // the raw setting and the line last from one opening to the next.
  int slave_ = -1;
  std::string slavePath_;
  std::string linkPath_;
};

}  // namespace cardsim

#endif

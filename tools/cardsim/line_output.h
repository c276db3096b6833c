#ifndef TALP_TOOLS_CARDSIM_LINE_OUTPUT_H_
#define TALP_TOOLS_CARDSIM_LINE_OUTPUT_H_

#include <string>

// Lines on standard output. A reader that stops reading must not keep the bus from answering, so
// nothing here waits: up to 1 MiB of text is kept for the reader. Lines beyond that are lost and
// counted: the next one that fits comes behind "lost N lines". Without a reader all is dropped.
class LINE_OUTPUT {
 public:
  LINE_OUTPUT();
  // Writes what is left, unless the reader takes nothing for a second.
  ~LINE_OUTPUT();
  LINE_OUTPUT(const LINE_OUTPUT&) = delete;
  LINE_OUTPUT& operator=(const LINE_OUTPUT&) = delete;

  // Adds the line, given without its line end, to the pending text.
  void Print(const std::string& line);

  // Writes as much of the pending text as the reader has room for.
  void Flush();

  // To be polled for POLLOUT before the next Flush; -1 while nothing is pending.
  int PendingDescriptor() const { return pending_.empty() ? -1 : descriptor_; }

 private:
  int descriptor_;
  std::string pending_;
  size_t lost_ = 0;
};

#endif  // TALP_TOOLS_CARDSIM_LINE_OUTPUT_H_

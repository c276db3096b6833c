// What a message costs while it waits in a queue, of which some have no limit.

#include <malloc.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bus/tlqueue.h"

namespace {

constexpr std::size_t kCount = 10000;

struct ROW {
  const char* what;
  std::vector<std::string> messages;  // queued for one such event
};

std::size_t Allocated() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::size_t BytesEach(const ROW& row) {
  TLQUEUE queue;
  const std::size_t before = Allocated();
  for (std::size_t i = 0; i < kCount; ++i) {
    for (const std::string& message : row.messages) queue.ToQueue(Convert_String2QList(message));
  }
  return (Allocated() - before) / kCount;
}

}  // namespace

int main() {
  const ROW rows[] = {
      {"a short line, such as a5b1dFB with CR LF", {"a5b1dFB\r\n"}},
      {"a full read of 255 bytes", {std::string(255, 'x')}},
      {"an illegal IO command of 8 characters, told to the console",
       {"COE:Illegal command -> nonsense\r\n", ">\r\n"}},
      {"an illegal IO command of 255 characters, told to the console",
       {"COE:Illegal command -> " + std::string(255, 'x') + "\r\n", ">\r\n"}},
  };
  for (const ROW& row : rows) std::printf("%7zu bytes  %s\n", BytesEach(row), row.what);
}

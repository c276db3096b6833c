#include "bare_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <stdexcept>

#include "clock.h"

namespace bench {

namespace {

constexpr std::size_t kStateAt = 3;  // behind length, code and address

using REPLY = std::array<unsigned char, 256>;

REPLY Exchange(int tty, unsigned char address) {
  const unsigned char request[] = {3, 0x20, address, 2};
  REPLY reply{};
  static_cast<void>(!write(tty, request, sizeof request));
  for (std::size_t received = 0; received == 0 || received <= reply[0];) {
    const ssize_t count = read(tty, reply.data() + received, reply.size() - received);
    if (count > 0) received += static_cast<std::size_t>(count);
  }
  return reply;
}

[[noreturn]] void PollForEver(int tty, int cards, int notices) {
  std::array<unsigned char, 16> states{};
  for (;;) {
    for (int address = 0; address < cards; ++address) {
      unsigned char& state = states[static_cast<std::size_t>(address)];
      const REPLY reply = Exchange(tty, static_cast<unsigned char>(address));
      if (reply[kStateAt] == state) continue;
      state = reply[kStateAt];
      const std::int64_t now = Now();
      static_cast<void>(!write(notices, &now, sizeof now));
    }
  }
}

}  // namespace

BARE_LOOP::BARE_LOOP(const std::string& device, int cards) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the bare loop");
  const int tty = open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  process_ = fork();
  if (process_ < 0) throw std::runtime_error("no process for the bare loop");
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    PollForEver(tty, cards, ends[1]);
  }
  close(tty);
  close(ends[1]);
  notices_ = ends[0];
}

BARE_LOOP::~BARE_LOOP() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
  close(notices_);
}

std::int64_t BARE_LOOP::WaitForChange(int timeout) {
  pollfd entry{notices_, POLLIN, 0};
  std::int64_t seen = 0;
  if (poll(&entry, 1, timeout) <= 0) return 0;
  return read(notices_, &seen, sizeof seen) == sizeof seen ? seen : 0;
}

}  // namespace bench

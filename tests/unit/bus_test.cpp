#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <termios.h>

#include <string>

#include "bus/frame.h"
#include "bus/serial_port.h"
#include "core/file_descriptor.h"
#include "support.h"

namespace {

TEST(Frame, AttemptBudgets) {
  for (const char command : {'0', '@', ' ', 'P', '\xB0'}) {
    const int budget = command == '0' || command == '@' ? 300000 : 150000;
    // A reply that comes with the last permitted attempt comes too late.
    for (const int last : {budget - 1, budget}) {
      REPLY_WAIT wait({command});
      for (int i = 1; i < last; ++i) wait.Attempt(nullptr, 0);
      EXPECT_TRUE(wait.Waiting());
      wait.Attempt("\1A", 2);
      EXPECT_FALSE(wait.Waiting());
      EXPECT_EQ(last < budget ? "A" : "TME", TextOf(wait.Reply())) << command;
    }
  }
}

TEST(Frame, LongPayloadIsCut) {
  const REQUEST_FRAME frame = BuildRequestFrame(BYTE_LIST(300, 'x'));
  EXPECT_EQ("\xFF" + std::string(255, 'x'), std::string(frame.bytes.data(), frame.size));
}

TEST(SerialPort, LineSettings) {
  const FILE_DESCRIPTOR bus(posix_openpt(O_RDWR | O_NOCTTY));
  ASSERT_EQ(0, grantpt(bus.Number()) + unlockpt(bus.Number()));
  const FILE_DESCRIPTOR tty = OpenSerialDevice(ptsname(bus.Number()));
  EXPECT_EQ(O_NONBLOCK | O_SYNC, fcntl(tty.Number(), F_GETFL) & (O_NONBLOCK | O_SYNC));
  EXPECT_EQ(0, ApplyLineSettings(tty));
  termios line{};
  tcgetattr(tty.Number(), &line);
  EXPECT_EQ(B460800, cfgetispeed(&line));
  EXPECT_EQ(0U, line.c_iflag | line.c_oflag | line.c_lflag);
  const tcflag_t control = CSIZE | CREAD | CLOCAL | PARENB | PARODD | CSTOPB | CRTSCTS;
  EXPECT_EQ(tcflag_t{CS8 | CREAD | CLOCAL}, line.c_cflag & control);
  EXPECT_EQ("0 50", std::to_string(line.c_cc[VMIN]) + " " + std::to_string(line.c_cc[VTIME]));
}

}  // namespace

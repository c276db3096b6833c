#include "bus/serial_port.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "support.h"

namespace {

TEST(SerialPort, LineSettings) {
  const int bus = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_EQ(0, grantpt(bus) + unlockpt(bus));
  const int tty = OpenSerialDevice(ptsname(bus));
  ASSERT_GE(tty, 0);
  EXPECT_EQ(O_NONBLOCK | O_SYNC, fcntl(tty, F_GETFL) & (O_NONBLOCK | O_SYNC));
  EXPECT_EQ(FD_CLOEXEC, fcntl(tty, F_GETFD));
  termios before{};
  tcgetattr(tty, &before);
  before.c_iflag |= IXON | IXOFF;
  before.c_cflag |= CSTOPB | CRTSCTS | PARENB;
  tcsetattr(tty, TCSANOW, &before);
  EXPECT_EQ(0, ApplyLineSettings(tty));
  termios line{};
  tcgetattr(tty, &line);
  EXPECT_EQ(B460800, cfgetispeed(&line));
  EXPECT_EQ(B460800, cfgetospeed(&line));
  EXPECT_EQ(0U, line.c_iflag & (IGNBRK | IXON | IXOFF | IXANY | ICRNL));
  EXPECT_EQ(0U, line.c_oflag | line.c_lflag);
  const tcflag_t control = CSIZE | CREAD | CLOCAL | PARENB | PARODD | CSTOPB | CRTSCTS;
  EXPECT_EQ(tcflag_t{CS8 | CREAD | CLOCAL}, line.c_cflag & control);
  EXPECT_EQ(0, line.c_cc[VMIN]);
  EXPECT_EQ(50, line.c_cc[VTIME]);
  close(tty);
  close(bus);
  EXPECT_EQ(EBADF, ApplyLineSettings(tty));
  EXPECT_EQ(-1, OpenSerialDevice("/nonexistent/ttyUSB0"));
}

TEST(SerialPort, DevicesInTheOrderOfTheListing) {
  using LIST = std::list<std::string>;
  const std::ptrdiff_t descriptors = OpenDescriptors();
  {
    const STUBBED_COMMAND listing("ls", "printf '%s\\n' null ttyS0 ttyUSB0 ttyUSB100 ttyUSB2");
    EXPECT_EQ((LIST{"/dev/ttyUSB0", "/dev/ttyUSB10", "/dev/", "/dev/ttyUSB2"}), GetUSBDevices());
  }
  const STUBBED_COMMAND listing("ls", "exit 1");
  EXPECT_EQ(LIST{}, GetUSBDevices());
  EXPECT_EQ(descriptors, OpenDescriptors());
}

}  // namespace

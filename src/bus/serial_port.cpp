#include "bus/serial_port.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <cerrno>

namespace {

// The request by which BSD systems set terminal attributes. Linux rejects it without an effect; the
// set-up issues it first and ignores the result.
constexpr unsigned long kBsdSetAttributes = 0x403C7414;

constexpr cc_t kReadTimeout = 50;  // tenths of a second; without effect on a non-blocking tty

termios LineSettings() {
  termios settings{};
  cfmakeraw(&settings);
  cfsetispeed(&settings, B460800);
  cfsetospeed(&settings, B460800);
  settings.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | IXON | IXOFF | IXANY);
  settings.c_oflag = 0;
  settings.c_cflag |= CS8 | CREAD | CLOCAL;
  settings.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD | CSTOPB | CRTSCTS);
  settings.c_lflag = 0;
  settings.c_cc[VTIME] = kReadTimeout;
  settings.c_cc[VMIN] = 0;
  return settings;
}

}  // namespace

std::list<std::string> GetUSBDevices() {
  std::list<std::string> devices;
  FILE* const listing = popen("ls /dev | grep ttyUSB", "re");
  if (listing == nullptr) return devices;
  // Room for ttyUSB99 and its line end. A longer name is split into two wrong ones, which then fail
  // to open.
  char piece[10];
  while (fgets(piece, sizeof piece, listing) != nullptr) {
    std::string device = std::string("/dev/") + piece;
    device.pop_back();
    devices.push_back(device);
  }
  pclose(listing);
  return devices;
}

FILE_DESCRIPTOR OpenSerialDevice(const std::string& path) {
  return FILE_DESCRIPTOR(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_SYNC | O_CLOEXEC));
}

int ApplyLineSettings(const FILE_DESCRIPTOR& tty) {
  termios settings = LineSettings();
  ioctl(tty.Number(), kBsdSetAttributes, &settings);
  return tcsetattr(tty.Number(), TCSANOW, &settings) == 0 ? 0 : errno;
}

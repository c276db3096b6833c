#ifndef TALP_BUS_SERIAL_PORT_H_
#define TALP_BUS_SERIAL_PORT_H_

#include <list>
#include <string>

#include "core/file_descriptor.h"

// The USB serial adapter as a device. Any thread. GetUSBDevices waits for a shell command, the
// others do not wait.

// The paths of all ttyUSB devices, in the listing's alphabetical order (ttyUSB10 before ttyUSB2).
// A name longer than ttyUSB99 gives two wrong paths: the listing is read 9 characters at a time.
std::list<std::string> GetUSBDevices();

// Opens a tty for reading and writing without blocking. The result is not open on failure.
FILE_DESCRIPTOR OpenSerialDevice(const std::string& path);

// Sets 460800 baud, raw, 8 data bits, no parity, 1 stop bit, no flow control (termios(3)). Returns
// 0, or the error number of tcsetattr.
int ApplyLineSettings(const FILE_DESCRIPTOR& tty);

#endif  // TALP_BUS_SERIAL_PORT_H_

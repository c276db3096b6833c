#ifndef TALP_BUS_SERIAL_PORT_H_
#define TALP_BUS_SERIAL_PORT_H_

#include <list>
#include <string>

// The USB serial adapter as a device. All operations block only for the system calls they make;
// any thread.

// The paths of all ttyUSB devices, in the listing's alphabetical order (ttyUSB10 before ttyUSB2).
// Names beyond ttyUSB99 come out broken in two: the listing is read 9 characters at a time.
std::list<std::string> GetUSBDevices();

// Opens a tty for reading and writing without blocking. -1 on failure.
int OpenSerialDevice(const std::string& path);

// Sets 460800 baud, raw, 8 data bits, no parity, 1 stop bit, no flow control (termios(3)). Returns
// 0, or the error number of tcsetattr.
int ApplyLineSettings(int descriptor);

#endif  // TALP_BUS_SERIAL_PORT_H_

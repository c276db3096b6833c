#ifndef TALP_CORE_CONFIG_H_
#define TALP_CORE_CONFIG_H_

#include <cstddef>
#include <string>
#include <vector>

#include "core/speed.h"
#include "thread/shared.h"

// The connection state of an interface.
enum class InterfaceState : int {
  Idle = 0,       // never listened
  Listening = 1,  // the next cycle waits for a client
  Accepting = 2,  // waiting for a client
  Connected = 3,  // a client is served; the master sends only in this state
  Closed = 4      // the task closes both sockets, and listens again after two cycles
};

// A configuration with a port up to this one is refused.
constexpr int kHighestRefusedPort = 1024;

// The settings of one listening interface.
struct INTERFACE_DESCRIPTOR {
  std::string name;  // "CAE", "IO" or "MON"
  int port = 0;
  SHARED<InterfaceState> state = InterfaceState::Idle;
  std::string outSeparator = "\r\n";
  std::string inpSeparator = "\r\n";
  SHARED<int> delay = kDefaultDelay;  // microseconds
};

constexpr char kNoConfigError[] = "NONE";
constexpr char kConfigLoadError[] = "Unable to load config, or unable to parse XML file!";

// The whole configuration.
struct CONFIG_DESCRIPTOR {
  INTERFACE_DESCRIPTOR io;
  INTERFACE_DESCRIPTOR cae;
  INTERFACE_DESCRIPTOR mon;
  INTERFACE_DESCRIPTOR fourth;  // never filled and never used
  std::string logFile;
  int logLevel = 0;
  std::string errorText = kNoConfigError;  // any other text stops the start-up
  int threadDelay = kDefaultDelay;         // microseconds
  bool pollEnable = false;
  bool autoDiscover = false;
};

// The interfaces that can be configured, in the order of their start.
struct INTERFACE_ROW {
  const char* name;
  INTERFACE_DESCRIPTOR CONFIG_DESCRIPTOR::*settings;
};

constexpr INTERFACE_ROW kInterfaces[] = {
    {"CAE", &CONFIG_DESCRIPTOR::cae},
    {"IO", &CONFIG_DESCRIPTOR::io},
    {"MON", &CONFIG_DESCRIPTOR::mon},
};

constexpr char kRootElement[] = "TALPConfig";
constexpr char kInterfacesElement[] = "Interfaces";
constexpr std::size_t kMaxEntries = 4;  // further entries below `Interfaces` are not read

// In place of the name of an entry below `Interfaces`, which is free.
constexpr char kEntry[] = "*";

struct SETTING {
  const char* element;  // a child of the root, or kEntry
  const char* attribute;
};

// All attributes that are read. Any thread.
std::vector<SETTING> AllSettings();

// Reads the XML document at `path`. Never throws. A document that cannot be loaded gives all
// defaults and kConfigLoadError. A refused port ends the reading with an error text of its own; the
// values read before it are returned. Any thread.
CONFIG_DESCRIPTOR ReadConfigFile(const char* path);

#endif  // TALP_CORE_CONFIG_H_

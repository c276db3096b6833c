#ifndef TALP_TOOLS_MQTT_LOG_WATCH_H_
#define TALP_TOOLS_MQTT_LOG_WATCH_H_

#include <sys/types.h>

#include <string>

#include "core/file_descriptor.h"
#include "mqtt/attempts.h"
#include "mqtt/node.h"

namespace mqtt {

// What a line of talp's log says of the bus.
struct BUS_NEWS {
  const char* text;  // with which the line begins, behind its time and level
  BUS bus;
  seconds delay;  // until a bus that is online can be used, if no other line comes
};

// What `line`, without its end, says of the bus; null if nothing.
const BUS_NEWS* BusNewsOf(const std::string& line);

// Finds out from talp's log whether the card bus is there. The log may be rotated, removed, and
// appear later; its lines may be of any length and have any bytes. One thread.
class LOG_WATCH {
 public:
  // An empty `path`: nothing is watched, and `reason` is logged.
  LOG_WATCH(std::string path, const std::string& reason);

  // Reads what is new. To be called several times a second.
  void Run();

  // kOnline from a few seconds after talp has found the bus, when it has found the cards, too.
  BUS State() const;

 private:
  void Report(const std::string& trouble);
  bool Open(const std::string& path);
  void ReadAll();
  void Take(const char* bytes, std::size_t count);
  bool IsReplaced();

  const std::string path_;
  std::string reported_;
  FILE_DESCRIPTOR file_;
  CLOCK::time_point lookedAt_;  // whether the file is still the one at the path
  std::string line_;            // the beginning of a line
  BUS bus_ = BUS::kUnknown;
  CLOCK::time_point onlineFrom_;
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_LOG_WATCH_H_

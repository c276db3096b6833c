#ifndef TALP_TOOLS_MQTT_BRIDGE_H_
#define TALP_TOOLS_MQTT_BRIDGE_H_

#include <string>

#include "mqtt/broker.h"
#include "mqtt/console_visit.h"
#include "mqtt/line_link.h"
#include "mqtt/log_watch.h"
#include "mqtt/node.h"

namespace mqtt {

struct BRIDGE_OPTIONS {
  BROKER_OPTIONS broker;
  std::string talp;          // host
  CONFIG_DESCRIPTOR config;  // of talp; a console's port of 0: it is never asked
  std::string log;           // of talp; empty: it is not watched, because
  std::string noLogReason;
  bool restores = true;  // outputs that talp may have forgotten are sent again
};

// Joins the connections to broker, IO port and, now and then, console, and talp's log. One thread.
class BRIDGE : private NODE, private BROKER::USER {
 public:
  // The caller has called mosquitto_lib_init(), and handles SIGUSR1.
  BRIDGE(const BRIDGE_OPTIONS& options, NAMES nodeNames);

  // Runs until `signals`, a signalfd(2), is readable; then publishes that the board is offline.
  void Run(int signals);

  // Threads still look up a name or connect: the process must leave by std::_Exit().
  bool IsBusy() const { return broker_.IsBusy() || io_.IsBusy() || console_.IsBusy(); }

 private:
  void Publish(const std::string& topic, const std::string& payload, bool retain) override;
  bool Send(const LINES& lines) override;
  void OnRetained(const std::string& topic, const std::string& payload) override;
  void OnBroker(bool ready) override;
  void OnMessage(const std::string& topic, const std::string& payload, bool retained) override;

  void Turn();
  bool IsBehind() const;
  void RunIo();
  void RunConsole();
  void BeginVisit(const std::string& line);
  void GoOnVisiting(const std::string& line);
  bool Wait(int signals);

  BROKER broker_;
  LOG_WATCH log_;
  LINE_LINK io_;
  LINE_LINK console_;
  CONSOLE_VISIT visit_;
  CLOCK::time_point lastTurn_;
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_BRIDGE_H_

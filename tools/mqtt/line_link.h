#ifndef TALP_TOOLS_MQTT_LINE_LINK_H_
#define TALP_TOOLS_MQTT_LINE_LINK_H_

#include <poll.h>

#include <string>
#include <vector>

#include "core/config.h"
#include "core/file_descriptor.h"
#include "mqtt/attempts.h"
#include "mqtt/lookup.h"

namespace mqtt {

using LINES = std::vector<std::string>;

// A client connection to one of talp's ports. It works when the port has greeted, which its owner
// finds out and says. Nothing here blocks. One thread.
class LINE_LINK : public ATTEMPTS {
 public:
  // `settings` are those of the interface: port and separators.
  LINE_LINK(const std::string& name, std::string host, const INTERFACE_DESCRIPTOR& settings,
            seconds longestPause);

  // Connects if that is due and `wanted`, to each address of the host in turn, and returns the
  // lines that came.
  LINES Run(bool wanted);

  // What poll(2) is to wait for before the next Run().
  pollfd Poll() const { return {socket_.Number(), POLLIN, 0}; }

  // True while a name is looked up, which Poll() does not show.
  bool IsBusy() const { return lookup_.IsBusy(); }

  // Sends all lines in one piece, or none and returns false: talp may not have read what was sent
  // before, or the connection is lost.
  bool Send(const LINES& lines);

  // talp has answered what was sent, so it has read all of it.
  void Answered() { unread_ = 0; }

  // Milliseconds after which Send() may succeed again.
  int Pause() const;

  void Close(const std::string& trouble);

  // Leaves because all is done.
  void Leave();

 private:
  void Connect(bool wanted);
  void Open(const ADDRESS& address);
  bool IsConnected() const { return !PeerOf(socket_.Number()).empty(); }
  // The connection has ended, or the address does not answer.
  void Lose(const std::string& trouble);
  LINES Cut();
  std::string Place() const;

  const std::string host_;
  const INTERFACE_DESCRIPTOR settings_;
  BACKGROUND<LOOKUP_RESULT> lookup_;
  std::vector<ADDRESS> addresses_;  // not tried yet, the next at the end
  std::string address_;             // that is tried
  FILE_DESCRIPTOR socket_;
  std::size_t unread_ = 0;     // bytes that talp may not have read yet
  CLOCK::time_point allRead_;  // when it has read all of them
  std::string received_;       // the beginning of a line
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_LINE_LINK_H_

#ifndef TALP_TOOLS_MQTT_BROKER_H_
#define TALP_TOOLS_MQTT_BROKER_H_

#include <mosquitto.h>
#include <poll.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mqtt/attempts.h"
#include "mqtt/lookup.h"

namespace mqtt {

// Which MQTT is spoken.
enum class PROTOCOL { kAny, k5, k311 };

struct BROKER_OPTIONS {
  std::string host = "localhost";
  int port = 0;
  std::string tlsCa;  // empty: no TLS
  std::string tlsCert;
  std::string tlsKey;
  std::string username;  // empty: none
  std::string password;
  PROTOCOL protocol = PROTOCOL::kAny;
};

// What a session consists of, whichever connection carries it.
struct SESSION {
  std::string clientId;
  std::string statusTopic;                         // becomes "offline" when the connection is lost
  std::vector<std::vector<std::string>> retained;  // filters of the topics to read back, by packet
  std::vector<std::string> commands;               // filters of the topics to obey
};

// The connection to the broker, by MQTT 5 or, where the broker refuses that, 3.1.1. When it is
// there it first reads back what the broker retains, and then lets commands in. What a lost
// connection has not delivered is not repeated. One thread.
class BROKER : public ATTEMPTS {
 public:
  // What comes of it. Each is called from Run().
  class USER {
   public:
    virtual ~USER() = default;
    // A retained message that was read back. May be called again for one topic.
    virtual void OnRetained(const std::string& topic, const std::string& payload) = 0;
    // All that is retained has been read, or (false) the connection is lost.
    virtual void OnBroker(bool ready) = 0;
    virtual void OnMessage(const std::string& topic, const std::string& payload, bool retained) = 0;
  };

  // The caller has called mosquitto_lib_init(). `user` outlives this.
  BROKER(BROKER_OPTIONS options, SESSION session, USER* user);

  // Connects if that is due, sends, receives and keeps the connection alive.
  void Run();

  // What poll(2) is to wait for before the next Run().
  pollfd Poll() const;

  // True while it connects, which Poll() does not show.
  bool IsBusy() const { return connecting_.IsBusy(); }

  // Milliseconds after which Run() is to be called also without events.
  int Pause() const;

  // Does nothing while the broker is away. What is not retained is dropped while many messages wait
  // to be acknowledged.
  void Publish(const std::string& topic, const std::string& payload, bool retain);

  // Messages that the broker has not acknowledged; 0 while it is away.
  std::size_t Unacknowledged() const { return unacknowledged_.size(); }

  // Ends the connection, and tries anew.
  void Drop(const std::string& trouble);

  // Waits, at most a second, until all is acknowledged, and ends the connection in good order.
  void Finish();

 private:
  struct OUTCOME {
    int status;           // of the library
    std::string trouble;  // why it has failed
    std::string addresses;
  };
  enum class PHASE { kConnecting, kReading, kServing };
  using CLIENT = std::shared_ptr<mosquitto>;  // lives as long as a connection

  // Runs on a thread of its own, because it blocks.
  static OUTCOME Connect(const CLIENT& client, const BROKER_OPTIONS& options, PROTOCOL protocol);

  CLIENT NewClient();
  int Exchange();
  int Receive();
  void Lose(const std::string& trouble);
  void OnConnected(int reason);
  void OnSubscribed(const std::vector<int>& granted);
  void OnMessage(const mosquitto_message& message);
  void OnDelivered(int id, int reason);
  void ReadBack();
  void Serve();
  void Subscribe(const std::vector<std::string>& filters);
  void Trouble(const std::string& text);
  std::string Place() const;

  const BROKER_OPTIONS options_;
  const SESSION session_;
  USER* const user_;
  PROTOCOL protocol_;          // of this or the next attempt
  bool refuses5_ = false;      // as the broker has said itself
  bool isUnanswered_ = false;  // connected, but the broker has not said anything yet
  CLIENT client_;
  BACKGROUND<OUTCOME> connecting_;
  CLOCK::time_point interruptAt_;
  std::string addresses_;  // that were tried
  PHASE phase_ = PHASE::kConnecting;
  bool isEnding_ = false;
  std::size_t read_ = 0;                       // packets of SESSION::retained that were asked for
  CLOCK::time_point lastNews_;                 // of what is retained
  std::size_t received_ = 0;                   // packets, to tell whether there are more
  std::map<int, std::size_t> unacknowledged_;  // sizes, by message id
  std::size_t unsent_ = 0;                     // bytes of messages without acknowledgement
  std::string trouble_;                        // as a callback has found it
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_BROKER_H_

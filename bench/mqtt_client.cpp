#include <mosquitto.h>

#include <cstddef>
#include <deque>
#include <stdexcept>

#include "client.h"
#include "timing.h"

namespace bench {

namespace {

class MQTT_CLIENT : public CLIENT {
 public:
  explicit MQTT_CLIENT(int port) {
    mosquitto_message_callback_set(connection_, Take);
    mosquitto_int_option(connection_, MOSQ_OPT_TCP_NODELAY, 1);
    if (mosquitto_connect(connection_, "127.0.0.1", port, 60) != MOSQ_ERR_SUCCESS) {
      throw std::runtime_error("cannot connect to the broker");
    }
    for (const char* topic : {"talp/bench/status", "talp/bench/card/F/kind", "talp/bench/io"}) {
      mosquitto_subscribe(connection_, nullptr, topic, 1);
    }
  }

  ~MQTT_CLIENT() override { mosquitto_destroy(connection_); }

  void Send(const std::string& line) override { Publish("talp/bench/io/set", line); }

  void Publish(const char* topic, const std::string& payload) {
    const int size = static_cast<int>(payload.size());
    // Without an acknowledgement, for which only Next() would look.
    mosquitto_publish(connection_, nullptr, topic, size, payload.data(), 0, false);
  }

  LINE Next() override {
    const std::int64_t limit = Now() + 5 * kSecond;
    while (received_.empty()) {
      if (Now() > limit) return {"", 0};
      if (mosquitto_loop(connection_, 1000, 1) != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("the broker has closed the connection");
      }
    }
    LINE line = received_.front();
    received_.pop_front();
    return line;
  }

 private:
  static void Take(mosquitto*, void* client, const mosquitto_message* message) {
    const std::string text(static_cast<const char*>(message->payload),
                           static_cast<std::size_t>(message->payloadlen));
    static_cast<MQTT_CLIENT*>(client)->received_.push_back({text, Now()});
  }

  mosquitto* const connection_ = mosquitto_new(nullptr, true, this);
  std::deque<LINE> received_;
};

}  // namespace

std::unique_ptr<CLIENT> Connect(int port) {
  mosquitto_lib_init();
  auto client = std::make_unique<MQTT_CLIENT>(port);
  if (client->WaitFor("online") == 0) throw std::runtime_error("the bridge does not connect");
  // The bridge may have asked for the cards before the daemon had found them.
  client->Publish("talp/bench/discover/set", "now");
  if (client->WaitFor("16 channel DIGITAL OUTPUT") == 0) {
    throw std::runtime_error("the bridge does not find the cards");
  }
  return client;
}

}  // namespace bench

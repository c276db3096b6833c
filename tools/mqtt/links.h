#ifndef TALP_TOOLS_MQTT_LINKS_H_
#define TALP_TOOLS_MQTT_LINKS_H_

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <deque>
#include <iostream>
#include <memory>
#include <system_error>

#include "core/config.h"
#include "core/file_descriptor.h"
#include "mqtt/node.h"

// The bridge's connections. Nothing here blocks, but for looking up a host's name. One thread.
namespace mqtt {

using CLOCK = std::chrono::steady_clock;
using std::chrono::seconds;

// The attempts to keep up one connection: when the next one is due, and what
// the log says of them.
class ATTEMPTS {
 public:
  // `name` begins every line of the log.
  explicit ATTEMPTS(std::string name) : name_(std::move(name)) {}

  bool Works() const { return works_; }

  // Of what is now: an attempt, a connection that works, or a pause.
  CLOCK::duration Age() const { return CLOCK::now() - since_; }

  void Succeeded() {
    reported_.clear();
    Report("connected");
    Begin();
    works_ = true;
  }

 protected:
  // Each trouble is reported once until the connection works again.
  void Report(const std::string& trouble) {
    if (reported_.insert(trouble).second) std::cerr << name_ + ": " + trouble + "\n";
  }

  // Pauses double from 1 to 30 seconds, and start anew after a connection that has lasted.
  void Failed(const std::string& trouble) {
    Report(trouble);
    const bool hasLasted = works_ && Age() > seconds(10);
    pause_ = hasLasted ? seconds(1) : std::clamp(2 * pause_, seconds(1), seconds(30));
    works_ = false;
    Begin();
  }

  bool IsDue() const { return Age() >= pause_; }
  void Begin() { since_ = CLOCK::now(); }

 private:
  const std::string name_;
  std::set<std::string> reported_;
  seconds pause_{0};
  CLOCK::time_point since_;
  bool works_ = false;
};

// A client connection to one of talp's ports. It works when the port has greeted, which its owner
// finds out and says.
class LINE_LINK : public ATTEMPTS {
 public:
  // `settings` are those of the interface: port and separators.
  LINE_LINK(const std::string& name, std::string host, const INTERFACE_DESCRIPTOR& settings)
      : ATTEMPTS(name + " " + host + ":" + std::to_string(settings.port)),
        host_(std::move(host)),
        settings_(settings) {}

  // Connects if that is due and `wanted`, sends what may be sent, and returns the lines that came.
  LINES Run(bool wanted) {
    if (!socket_.IsOpen() && wanted && IsDue()) Open();
    // talp greets 3 seconds after it listens, if nobody else is being served. The connection waits
    // its turn: to connect anew would not bring it nearer.
    if (socket_.IsOpen() && !Works() && Age() > seconds(6)) {
      Report("no greeting, so another client is being served; waiting");
    }
    Flush();
    return socket_.IsOpen() ? Read() : LINES();
  }

  // What poll(2) is to wait for before the next Run().
  pollfd Poll() const { return {socket_.Number(), POLLIN, 0}; }

  // Milliseconds after which Run() is to be called also without events.
  int Pause() const { return queue_.empty() ? 1000 : kReadTime; }

  // Queues lines, all or none. False if too many wait.
  bool Send(const LINES& lines) {
    if (queue_.size() + lines.size() > 2000) return false;
    queue_.insert(queue_.end(), lines.begin(), lines.end());
    Flush();
    return true;
  }

  void Close(const std::string& trouble) {
    socket_.Close();
    received_.clear();
    queue_.clear();
    Failed(trouble);
  }

 private:
  // talp takes for one message what one read yields, and a read takes 255 bytes wherever a line
  // ends in them. No line is cut in two if talp, which reads every 5 ms or sooner, also on a busy
  // machine, has read what was sent before more than 255 bytes wait for it.
  static constexpr std::size_t kReadSize = 255;
  static constexpr int kReadTime = 100;  // milliseconds
  // A host that is gone without a word is found out within a minute.
  static constexpr int kSocketOptions[][3] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                                              {IPPROTO_TCP, TCP_KEEPIDLE, 15},
                                              {IPPROTO_TCP, TCP_KEEPINTVL, 5}};

  void Open() {
    Begin();
    // talp listens on IPv4 only.
    const addrinfo hints = {0, AF_INET, SOCK_STREAM, 0, 0, nullptr, nullptr, nullptr};
    addrinfo* found = nullptr;
    const int error =
        getaddrinfo(host_.c_str(), std::to_string(settings_.port).c_str(), &hints, &found);
    if (error != 0) return Failed(gai_strerror(error));
    socket_ = FILE_DESCRIPTOR(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    for (const auto& [level, name, value] : kSocketOptions) {
      setsockopt(socket_.Number(), level, name, &value, sizeof value);
    }
    // What comes of it the first read finds.
    connect(socket_.Number(), found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
  }

  // talp ends each line with its separator and one more carriage return, and its greeting with CR
  // LF whatever the separator is. So both end a line, and other characters of the separator go too.
  LINES Read() {
    LINES lines;
    char bytes[4096];
    const ssize_t count = recv(socket_.Number(), bytes, sizeof bytes, 0);
    if (count < 0 && errno == EAGAIN) return lines;
    if (count <= 0) Close(count == 0 ? "closed by talp" : std::generic_category().message(errno));
    received_.append(bytes, count <= 0 ? 0 : static_cast<std::size_t>(count));
    std::string separator = settings_.outSeparator;
    separator.erase(separator.find_last_not_of("\r\n") + 1);
    for (std::size_t end = 0; (end = received_.find_first_of("\r\n")) != std::string::npos;) {
      std::string line = received_.substr(0, end);
      received_.erase(0, end + 1);
      const std::size_t textEnd = line.size() - std::min(separator.size(), line.size());
      if (line.substr(textEnd) == separator) line.erase(textEnd);
      if (!line.empty()) lines.push_back(line);
    }
    if (received_.size() > 4096) received_.clear();
    return lines;
  }

  void Flush() {
    if (CLOCK::now() >= allRead_) unread_ = 0;
    std::string bytes;
    while (!queue_.empty()) {
      const std::string line = queue_.front() + settings_.inpSeparator;
      if (unread_ + line.size() > kReadSize) break;
      unread_ += line.size();
      bytes += line;
      queue_.pop_front();
    }
    if (bytes.empty()) return;
    allRead_ = CLOCK::now() + std::chrono::milliseconds(kReadTime);
    const ssize_t sent = send(socket_.Number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(bytes.size())) Close("talp does not read");
  }

  const std::string host_;
  const INTERFACE_DESCRIPTOR settings_;
  FILE_DESCRIPTOR socket_;
  std::size_t unread_ = 0;     // bytes that talp may not have read yet
  CLOCK::time_point allRead_;  // when it has read all of them
  std::string received_;       // the beginning of a line
  std::deque<std::string> queue_;
};

struct BROKER_OPTIONS {
  std::string host = "localhost";
  int port = 0;
  std::string tlsCa;  // empty: no TLS
  std::string tlsCert;
  std::string tlsKey;
  std::string username;  // empty: none
  std::string password;
};

// The connection to the broker, by MQTT 5. What a lost connection has not delivered is not
// repeated: the node publishes to the next one what is true then.
class BROKER : public ATTEMPTS {
 public:
  // The caller has called mosquitto_lib_init().
  BROKER(const BROKER_OPTIONS& options, NODE* node)
      : ATTEMPTS("broker " + options.host + ":" + std::to_string(options.port)),
        options_(options),
        node_(node),
        client_(nullptr, mosquitto_destroy) {}

  // Connects if that is due, sends, receives and keeps the connection alive.
  void Run() {
    if (!client_ && !IsDue()) return;
    int status = client_ ? MOSQ_ERR_SUCCESS : Open();
    mosquitto* const client = client_.get();
    if (status == 0) status = mosquitto_loop_read(client, 1);
    // Acknowledges at once, until the next read (tcp(7)). A broker that collects short messages
    // would wait 40 ms for that.
    const int on = 1;
    setsockopt(mosquitto_socket(client), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    if (status == 0 && mosquitto_want_write(client)) status = mosquitto_loop_write(client, 1);
    if (status == 0) status = mosquitto_loop_misc(client);
    if (status != 0) Trouble(TextOf(status));
    if (!Works() && Age() > seconds(15)) Trouble("no answer");
    if (trouble_.empty()) return;
    client_.reset();
    unacknowledged_ = 0;
    Failed(std::exchange(trouble_, {}));
  }

  // What poll(2) is to wait for before the next Run().
  pollfd Poll() const {
    if (!client_) return {-1, 0, 0};
    const int events = mosquitto_want_write(client_.get()) ? POLLIN | POLLOUT : POLLIN;
    return {mosquitto_socket(client_.get()), static_cast<short>(events), 0};
  }

  // Does nothing while the broker is away. What is not retained is dropped while very many messages
  // wait to be acknowledged.
  void Publish(const std::string& topic, const std::string& payload, bool retain) {
    if (!Works() || (!retain && unacknowledged_ >= 20000)) return;
    const int size = static_cast<int>(payload.size());
    const int status = mosquitto_publish(client_.get(), nullptr, topic.c_str(), size,
                                         payload.data(), kQos, retain);
    if (status == MOSQ_ERR_SUCCESS) ++unacknowledged_;
  }

  // Messages that the broker has not acknowledged; 0 while it is away.
  int Unacknowledged() const { return unacknowledged_; }

 private:
  static constexpr int kQos = 1;
  static constexpr int kKeepAlive = 5;  // seconds; a silent broker is given up after two of them

  // The library hands out its own codes and, from 128 on, the reasons of the broker.
  static std::string TextOf(int code) {
    return code < 128 ? mosquitto_strerror(code) : mosquitto_reason_string(code);
  }

  static const char* OrNull(const std::string& s) { return s.empty() ? nullptr : s.c_str(); }

  int Open() {
    Begin();
    client_.reset(mosquitto_new(("talp-mqtt-" + node_->id).c_str(), true, this));
    mosquitto* const client = client_.get();
    mosquitto_connect_callback_set(client, [](mosquitto*, void* self, int reason) {
      static_cast<BROKER*>(self)->OnConnected(reason);
    });
    mosquitto_disconnect_callback_set(client, [](mosquitto*, void* self, int code) {
      static_cast<BROKER*>(self)->Trouble(TextOf(code));
    });
    mosquitto_publish_callback_set(
        client, [](mosquitto*, void* self, int) { --static_cast<BROKER*>(self)->unacknowledged_; });
    mosquitto_message_callback_set(client, [](mosquitto*, void* self, const mosquitto_message* m) {
      const std::string payload(static_cast<const char*>(m->payload),
                                static_cast<std::size_t>(m->payloadlen));
      static_cast<BROKER*>(self)->node_->OnMessage(m->topic, payload, m->retain);
    });
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_will_set(client, (node_->root + "status").c_str(), 7, "offline", kQos, true);
    mosquitto_username_pw_set(client, OrNull(options_.username), OrNull(options_.password));
    if (!options_.tlsCa.empty()) {
      mosquitto_tls_set(client, options_.tlsCa.c_str(), nullptr, OrNull(options_.tlsCert),
                        OrNull(options_.tlsKey), nullptr);
    }
    return mosquitto_connect_async(client, options_.host.c_str(), options_.port, kKeepAlive);
  }

  // Of several the first is the reason.
  void Trouble(const std::string& text) { trouble_ = trouble_.empty() ? text : trouble_; }

  void OnConnected(int reason) {
    if (reason != 0) return Trouble(TextOf(reason));
    Succeeded();
    node_->OnBroker();
    Subscribe(node_->root + "#", MQTT_SUB_OPT_RETAIN_AS_PUBLISHED);
    const std::string& prefix = node_->names.homeAssistant;
    if (prefix.empty()) return;
    Subscribe(prefix + "/status", 0);
    Subscribe(prefix + "/+/" + node_->id + "/+/config", 0);
  }

  void Subscribe(const std::string& filter, int options) {
    mosquitto_subscribe_v5(client_.get(), nullptr, filter.c_str(), kQos,
                           MQTT_SUB_OPT_NO_LOCAL | options, nullptr);
  }

  const BROKER_OPTIONS options_;
  NODE* const node_;
  std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_;  // lives as long as a connection
  int unacknowledged_ = 0;
  std::string trouble_;  // as a callback has found it
};

}  // namespace mqtt

#endif  // TALP_TOOLS_MQTT_LINKS_H_

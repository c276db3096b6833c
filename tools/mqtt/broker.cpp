#include "mqtt/broker.h"

#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace mqtt {

namespace {

constexpr int kQos = 1;
constexpr int kKeepAlive = 5;  // seconds; a silent broker is given up after two of them
constexpr int kLargestPacket = 128 * 1024;  // holds the longest topic, so that it can be removed
constexpr int kPacketsAtOnce = 64;          // before the other connections have their turn
constexpr std::size_t kMostWaiting = 6000;
constexpr std::size_t kMostUnsent = 262144;  // bytes
constexpr seconds kAddressTime(5);
constexpr seconds kAnswerTime(15);
// Brokers may send what they retain before or after they acknowledge the subscription.
constexpr milliseconds kQuietTime(500);
constexpr seconds kReadTime(10);

// The library hands out its own codes and, from here on, the broker's reasons to refuse.
constexpr int kFirstFailure = 128;

std::string TextOf(int code) {
  if (code == MOSQ_ERR_ERRNO) return std::generic_category().message(errno);
  return code < kFirstFailure ? mosquitto_strerror(code) : mosquitto_reason_string(code);
}

const char* OrNull(const std::string& s) { return s.empty() ? nullptr : s.c_str(); }

// As the library wants them: it does not change them.
std::vector<char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size());
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  return pointers;
}

}  // namespace

BROKER::BROKER(BROKER_OPTIONS options, SESSION session, USER* user)
    : ATTEMPTS("broker " + options.host + ":" + std::to_string(options.port)),
      options_(std::move(options)),
      session_(std::move(session)),
      user_(user),
      protocol_(options_.protocol == PROTOCOL::kAny ? PROTOCOL::k5 : options_.protocol) {}

void BROKER::Run() {
  if (!client_) {
    if (!IsDue()) return;
    Begin();
    client_ = NewClient();
    interruptAt_ = CLOCK::now() + kAddressTime;
    connecting_.Start([client = client_, options = options_, protocol = protocol_] {
      return Connect(client, options, protocol);
    });
  }
  if (connecting_.IsBusy()) {
    const std::optional<OUTCOME> outcome = connecting_.Take();
    if (outcome) {
      Begin();
      addresses_ = outcome->addresses;
      isUnanswered_ = outcome->status == MOSQ_ERR_SUCCESS;
      if (!isUnanswered_) Lose(outcome->trouble);
    } else if (CLOCK::now() >= interruptAt_) {
      // An address that does not answer is given up, and the library goes on with the next one.
      connecting_.Interrupt();
      interruptAt_ += kAddressTime;
    }
    return;
  }
  const int status = Exchange();
  if (status != MOSQ_ERR_SUCCESS) Trouble(TextOf(status));
  if (phase_ != PHASE::kServing && Age() > kAnswerTime) Trouble("no answer");
  if (!trouble_.empty()) Lose(std::exchange(trouble_, {}));
}

pollfd BROKER::Poll() const {
  if (!client_ || IsBusy()) return {-1, 0, 0};
  const bool wantsWrite = mosquitto_want_write(client_.get());
  const int events = (unsent_ > kMostUnsent ? 0 : POLLIN) | (wantsWrite ? POLLOUT : 0);
  return {mosquitto_socket(client_.get()), static_cast<short>(events), 0};
}

int BROKER::Pause() const { return IsBusy() ? 20 : phase_ == PHASE::kReading ? 50 : 1000; }

void BROKER::Publish(const std::string& topic, const std::string& payload, bool retain) {
  if (!client_ || phase_ == PHASE::kConnecting) return;
  if (!retain && unacknowledged_.size() >= kMostWaiting) return;
  // While topics are read back, those that are none of the node's are removed, in a callback of the
  // library. There may be very many, and what is not acknowledged is not kept. Outside a callback
  // the library would send a message of QoS 0, and say so, before its id is known here.
  const int qos = retain && phase_ != PHASE::kServing ? 0 : kQos;
  int id = 0;
  const int size = static_cast<int>(payload.size());
  const int status =
      mosquitto_publish(client_.get(), &id, topic.c_str(), size, payload.data(), qos, retain);
  if (status == MOSQ_ERR_OVERSIZE_PACKET) Report(topic + ": longer than the broker takes");
  if (status != MOSQ_ERR_SUCCESS) return;
  if (qos == 0) unsent_ += topic.size();
  unacknowledged_[id] = qos == 0 ? topic.size() : 0;
}

void BROKER::Drop(const std::string& trouble) {
  if (phase_ != PHASE::kConnecting) Lose(trouble);
}

void BROKER::Finish() {
  isEnding_ = true;
  const CLOCK::time_point end = CLOCK::now() + seconds(1);
  while (phase_ == PHASE::kServing && !unacknowledged_.empty() && CLOCK::now() < end) {
    Run();
    pollfd polled = Poll();
    poll(&polled, 1, 10);
  }
  if (phase_ == PHASE::kConnecting) return;
  mosquitto_disconnect(client_.get());
  if (mosquitto_want_write(client_.get())) mosquitto_loop_write(client_.get(), 1);
}

BROKER::OUTCOME BROKER::Connect(const CLIENT& client, const BROKER_OPTIONS& options,
                                PROTOCOL protocol) {
  OUTCOME outcome{MOSQ_ERR_EAI, {}, {}};
  const LOOKUP_RESULT found = Lookup(options.host, options.port, false);
  for (const ADDRESS& address : found.addresses) {
    if (address.text == options.host) break;
    outcome.addresses += (outcome.addresses.empty() ? "" : ", ") + address.text;
  }
  outcome.trouble = found.trouble;
  if (found.addresses.empty()) return outcome;
  mosquitto_property* properties = nullptr;
  if (protocol == PROTOCOL::k5) {
    mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, kLargestPacket);
  }
  // The library tries all addresses, and compares the certificate with the name. It does both only
  // when it blocks and is given the name.
  errno = 0;
  outcome.status = mosquitto_connect_bind_v5(client.get(), options.host.c_str(), options.port,
                                             kKeepAlive, nullptr, properties);
  if (outcome.status != MOSQ_ERR_SUCCESS) outcome.trouble = TextOf(outcome.status);
  mosquitto_property_free_all(&properties);
  return outcome;
}

BROKER::CLIENT BROKER::NewClient() {
  CLIENT shared(mosquitto_new(session_.clientId.c_str(), true, this), mosquitto_destroy);
  mosquitto* const client = shared.get();
  mosquitto_connect_callback_set(client, [](mosquitto*, void* self, int reason) {
    static_cast<BROKER*>(self)->OnConnected(reason);
  });
  mosquitto_disconnect_callback_set(client, [](mosquitto*, void* self, int code) {
    static_cast<BROKER*>(self)->Trouble(TextOf(code));
  });
  mosquitto_publish_v5_callback_set(
      client, [](mosquitto*, void* self, int id, int reason, const mosquitto_property*) {
        static_cast<BROKER*>(self)->OnDelivered(id, reason);
      });
  mosquitto_subscribe_callback_set(
      client, [](mosquitto*, void* self, int, int count, const int* granted) {
        static_cast<BROKER*>(self)->OnSubscribed({granted, granted + count});
      });
  mosquitto_message_callback_set(client, [](mosquitto*, void* self, const mosquitto_message* m) {
    static_cast<BROKER*>(self)->OnMessage(*m);
  });
  mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION,
                       protocol_ == PROTOCOL::k5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
  mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_will_set(client, session_.statusTopic.c_str(), 7, "offline", kQos, true);
  mosquitto_username_pw_set(client, OrNull(options_.username), OrNull(options_.password));
  if (!options_.tlsCa.empty()) {
    mosquitto_tls_set(client, options_.tlsCa.c_str(), nullptr, OrNull(options_.tlsCert),
                      OrNull(options_.tlsKey), nullptr);
  }
  return shared;
}

int BROKER::Exchange() {
  mosquitto* const client = client_.get();
  int status = unsent_ > kMostUnsent ? MOSQ_ERR_SUCCESS : Receive();
  if (status == MOSQ_ERR_SUCCESS && mosquitto_want_write(client)) {
    status = mosquitto_loop_write(client, 1);
  }
  if (status == MOSQ_ERR_SUCCESS) status = mosquitto_loop_misc(client);
  if (phase_ == PHASE::kReading && read_ > session_.retained.size() &&
      (CLOCK::now() > lastNews_ + kQuietTime || Age() > kReadTime)) {
    Serve();
  }
  return status;
}

// A publisher may be faster than this. The other connections still have their turn.
int BROKER::Receive() {
  mosquitto* const client = client_.get();
  int status = MOSQ_ERR_SUCCESS;
  std::size_t before = 0;
  for (int i = 0; i < kPacketsAtOnce && status == MOSQ_ERR_SUCCESS; ++i) {
    before = received_;
    status = mosquitto_loop_read(client, 1);
    if (received_ == before || unsent_ > kMostUnsent) break;
  }
  // Acknowledges at once, until the next read (tcp(7)). A broker that collects short messages would
  // wait 40 ms for that.
  const int on = 1;
  setsockopt(mosquitto_socket(client), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
  return status;
}

void BROKER::Lose(const std::string& trouble) {
  const bool wasReady = phase_ == PHASE::kServing;
  // A broker that knows 3.1.1 only says so, or closes the connection without a word.
  if (options_.protocol == PROTOCOL::kAny) {
    const bool wasIgnored = protocol_ == PROTOCOL::k5 && isUnanswered_;
    protocol_ = refuses5_ || wasIgnored ? PROTOCOL::k311 : PROTOCOL::k5;
  }
  isUnanswered_ = false;
  client_.reset();
  phase_ = PHASE::kConnecting;
  unacknowledged_.clear();
  unsent_ = 0;
  Failed(trouble + Place());
  if (wasReady) user_->OnBroker(false);
}

void BROKER::OnConnected(int reason) {
  isUnanswered_ = false;
  if (reason == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION && options_.protocol == PROTOCOL::kAny) {
    refuses5_ = protocol_ == PROTOCOL::k5;
  }
  if (!addresses_.empty()) addresses_ = PeerOf(mosquitto_socket(client_.get()));
  if (reason != 0) return Trouble(TextOf(reason));
  Succeeded("connected" + std::string(protocol_ == PROTOCOL::k5 ? "" : " by MQTT 3.1.1") + Place());
  phase_ = PHASE::kReading;
  read_ = 0;
  ReadBack();
}

void BROKER::OnSubscribed(const std::vector<int>& granted) {
  ++received_;
  if (phase_ == PHASE::kReading) return ReadBack();
  const bool isRefused = std::any_of(granted.begin(), granted.end(), [](int x) { return x > 2; });
  if (isRefused) Report("the broker does not let its user subscribe to the commands");
}

void BROKER::OnMessage(const mosquitto_message& message) {
  ++received_;
  if (isEnding_) return;
  const std::string payload(static_cast<const char*>(message.payload),
                            static_cast<std::size_t>(message.payloadlen));
  if (phase_ == PHASE::kServing) return user_->OnMessage(message.topic, payload, message.retain);
  lastNews_ = CLOCK::now();
  if (message.retain && !payload.empty()) user_->OnRetained(message.topic, payload);
}

void BROKER::OnDelivered(int id, int reason) {
  ++received_;
  if (reason >= kFirstFailure) Report("the broker refuses a message: " + TextOf(reason));
  const auto found = unacknowledged_.find(id);
  if (found == unacknowledged_.end()) return;
  unsent_ -= found->second;
  unacknowledged_.erase(found);
}

// A packet of filters after the other, each when the one before is acknowledged: a broker that
// keeps a limited number of messages for a client never comes near it.
void BROKER::ReadBack() {
  lastNews_ = CLOCK::now();
  if (read_ < session_.retained.size()) Subscribe(session_.retained[read_]);
  ++read_;
}

void BROKER::Serve() {
  for (const std::vector<std::string>& filters : session_.retained) {
    std::vector<char*> pointers = Pointers(filters);
    mosquitto_unsubscribe_multiple(client_.get(), nullptr, static_cast<int>(pointers.size()),
                                   pointers.data(), nullptr);
  }
  phase_ = PHASE::kServing;
  Subscribe(session_.commands);
  user_->OnBroker(true);
}

void BROKER::Subscribe(const std::vector<std::string>& filters) {
  const int options = MQTT_SUB_OPT_NO_LOCAL | MQTT_SUB_OPT_RETAIN_AS_PUBLISHED;
  std::vector<char*> pointers = Pointers(filters);
  // What is read back needs no acknowledgement, and a broker limits the number of those.
  mosquitto_subscribe_multiple(client_.get(), nullptr, static_cast<int>(pointers.size()),
                               pointers.data(), phase_ == PHASE::kServing ? kQos : 0,
                               protocol_ == PROTOCOL::k5 ? options : 0, nullptr);
}

// Of several the first is the reason.
void BROKER::Trouble(const std::string& text) { trouble_ = trouble_.empty() ? text : trouble_; }

std::string BROKER::Place() const { return addresses_.empty() ? "" : " (" + addresses_ + ")"; }

}  // namespace mqtt

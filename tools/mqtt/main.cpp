#include <limits.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>

#include "core/logger.h"
#include "core/paths.h"
#include "mqtt/bridge.h"

using namespace mqtt;

namespace {

constexpr std::size_t kLongestName = 255;  // bytes: a node's topics stay far below what MQTT allows

struct OPTIONS {
  BRIDGE_OPTIONS bridge;
  std::string topic = "talp";
  std::string node;
  std::string homeAssistant = "homeassistant";
  std::string passwordFile;
  int ioPort = -1;   // less than 0: as in talp's configuration
  int caePort = -1;  // likewise; 0: the console is never asked
};

std::string Unreadable(const std::string& path) {
  return std::ifstream(path).peek() == EOF ? path + " cannot be read or is empty" : "";
}

std::string NoTopic(const std::string& name) {
  // Those that begin with $ are the broker's own.
  const bool fits = !name.empty() && name.size() <= kLongestName && name[0] != '$' &&
                    mosquitto_pub_topic_check(name.c_str()) == 0 &&
                    mosquitto_validate_utf8(name.c_str(), static_cast<int>(name.size())) == 0;
  return fits ? "" : "'" + name + "' cannot be part of a topic";
}

// Two levels would be a topic of another node, and each node has topics below "card".
std::string NoNode(const std::string& name) {
  if (name == "card") return "'card' is a topic of every node";
  return name.find('/') == std::string::npos ? NoTopic(name) : "'" + name + "' has a slash";
}

std::string NoPrefix(const std::string& name) { return name.empty() ? "" : NoTopic(name); }

void AddBrokerOptions(CLI::App* app, OPTIONS* o) {
  static const std::map<std::string, PROTOCOL> kProtocols = {
      {"auto", PROTOCOL::kAny}, {"5", PROTOCOL::k5}, {"3.1.1", PROTOCOL::k311}};
  BROKER_OPTIONS* const broker = &o->bridge.broker;
  app->add_option("--broker", broker->host, "host of the broker (localhost)");
  app->add_option("--port", broker->port, "its port (1883; 8883 with TLS)")
      ->check(CLI::Range(0, 65535));
  app->add_option("--mqtt", broker->protocol, "5, 3.1.1 or auto: what the broker speaks (auto)")
      ->transform(CLI::CheckedTransformer(kProtocols));
  app->add_option("--tls-ca", broker->tlsCa, "certificates to trust: use TLS")->check(Unreadable);
  auto* const key = app->add_option("--tls-key", broker->tlsKey, "key of --tls-cert");
  auto* const cert = app->add_option("--tls-cert", broker->tlsCert, "certificate to show");
  cert->check(Unreadable)->needs("--tls-ca")->needs(key->check(Unreadable)->needs(cert));
  app->add_option("--username", broker->username, "user at the broker");
  auto* const password = app->add_option("--password-file", o->passwordFile, "its first line");
  password->check(Unreadable)->needs("--username");
}

void AddOptions(CLI::App* app, OPTIONS* o) {
  const CLI::Range port(0, 65535);
  char host[HOST_NAME_MAX + 1] = "";  // not from /proc, which the service does not see
  gethostname(host, HOST_NAME_MAX);
  o->node = host;
  o->bridge.talp = "127.0.0.1";
  app->set_version_flag("--version", std::string("talp-mqtt ") + TALP_VERSION);
  app->set_config("--config", "", "file of these options, a line KEY = VALUE each");
  app->allow_config_extras(CLI::config_extras_mode::error);
  AddBrokerOptions(app, o);
  app->add_option("--node", o->node, "name of this board (the host's)")->check(NoNode);
  app->add_option("--topic", o->topic, "topic of all boards (talp)")->check(NoTopic);
  app->add_option("--talp", o->bridge.talp, "host of talp (127.0.0.1)");
  app->add_option("--io-port", o->ioPort, "IO port (as in talpconf.xml)")->check(port);
  app->add_option("--cae-port", o->caePort, "the console's likewise; 0: never ask it")->check(port);
  app->add_option("--home-assistant", o->homeAssistant, "prefix; empty: off")->check(NoPrefix);
  app->add_option("--restore", o->bridge.restores,
                  "true or false: send outputs again that talp may have forgotten (true)");
}

// The log tells of the bus only if it is the one of the talp that is used.
void FindLog(OPTIONS* o) {
  const std::string& host = o->bridge.talp;
  const bool isLocal = host == "localhost" || host == "::1" || host.compare(0, 4, "127.") == 0;
  const bool isConfigured = o->ioPort < 0 || o->caePort < 0;
  std::string* const reason = &o->bridge.noLogReason;
  if (!isLocal) *reason = "talp runs on another machine";
  if (isLocal && !isConfigured) *reason = "both ports are given, so its log is not known";
  if (isLocal && isConfigured && o->bridge.config.logLevel > kLogLevel) {
    *reason = "the Loglevel in " + std::string(kConfigFile) + " leaves its lines out";
  }
  if (reason->empty()) o->bridge.log = o->bridge.config.logFile;
}

// What the options leave out.
void Complete(OPTIONS* o) {
  CONFIG_DESCRIPTOR* const config = &o->bridge.config;
  BROKER_OPTIONS* const broker = &o->bridge.broker;
  Require(NoNode(o->node).empty(), "--node: " + NoNode(o->node));
  if (broker->port == 0) broker->port = broker->tlsCa.empty() ? 1883 : 8883;
  std::getline(std::ifstream(o->passwordFile), broker->password);
  if (o->ioPort < 0 || o->caePort < 0) *config = ReadConfigFile(kConfigFile);
  Require(config->errorText == kNoConfigError, kConfigFile + (": " + config->errorText));
  if (o->ioPort >= 0) config->io.port = o->ioPort;
  if (o->caePort >= 0) config->cae.port = o->caePort;
  Require(config->io.port != 0 && !config->io.inpSeparator.empty(),
          "no IO port, or no InpSeparator of it");
  FindLog(o);
}

// Signals that end the process are read from a descriptor, from the first moment on.
int TakeSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a peer that is gone is no reason to end
  // Interrupts a system call of a thread, and does nothing else.
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  return signalfd(-1, &signals, SFD_CLOEXEC);
}

}  // namespace

int main(int argc, char** argv) {
  const int signals = TakeSignals();
  CLI::App app("Makes a board with talp a node of an MQTT broker.", "talp-mqtt");
  OPTIONS options;
  try {
    AddOptions(&app, &options);
    app.parse(argc, argv);
    Complete(&options);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const std::exception& error) {
    const std::string text = error.what();
    std::cerr << "talp-mqtt: " + text.substr(0, text.find('\n')) + "\n";
    return 2;
  }
  mosquitto_lib_init();
  BRIDGE bridge(options.bridge, NAMES(options.topic, options.node, options.homeAssistant));
  bridge.Run(signals);
  // A thread that waits for an answer of the network does not end before it has it.
  if (bridge.IsBusy()) std::_Exit(0);
  return 0;
}

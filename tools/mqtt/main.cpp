#include <limits.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fstream>

#include "mqtt/links.h"

using namespace mqtt;

namespace {

constexpr char kConfigFile[] = "/etc/talp/talpconf.xml";

struct OPTIONS {
  BROKER_OPTIONS broker;
  NODE_NAMES names;
  std::string passwordFile;
  std::string talp = "127.0.0.1";
  int ioPort = -1;   // less than 0: as in talp's configuration
  int caePort = -1;  // likewise; 0: the console is never asked
  CONFIG_DESCRIPTOR config;
};

std::string Unreadable(const std::string& path) {
  return std::ifstream(path).peek() == EOF ? path + " cannot be read or is empty" : "";
}

std::string NoTopic(const std::string& name) {
  const bool fits = mosquitto_pub_topic_check(name.c_str()) == 0 &&
                    mosquitto_validate_utf8(name.c_str(), static_cast<int>(name.size())) == 0;
  return fits ? "" : "'" + name + "' cannot be part of a topic";
}

void AddOptions(CLI::App* app, OPTIONS* o) {
  const CLI::Range port(0, 65535);
  char host[HOST_NAME_MAX + 1] = "";  // not from /proc, which the service does not see
  gethostname(host, HOST_NAME_MAX);
  o->names.node = host;
  app->set_version_flag("--version", std::string("talp-mqtt ") + TALP_VERSION);
  app->set_config("--config", "", "file of these options, a line KEY = VALUE each");
  app->allow_config_extras(CLI::config_extras_mode::error);
  app->add_option("--broker", o->broker.host, "host of the broker (localhost)");
  app->add_option("--port", o->broker.port, "its port (1883; 8883 with TLS)")->check(port);
  app->add_option("--tls-ca", o->broker.tlsCa, "certificates to trust: use TLS")->check(Unreadable);
  auto* const key = app->add_option("--tls-key", o->broker.tlsKey, "key of --tls-cert");
  auto* const cert = app->add_option("--tls-cert", o->broker.tlsCert, "certificate to show");
  cert->check(Unreadable)->needs("--tls-ca")->needs(key->check(Unreadable)->needs(cert));
  app->add_option("--username", o->broker.username, "user at the broker");
  auto* const password = app->add_option("--password-file", o->passwordFile, "its first line");
  password->check(Unreadable)->needs("--username");
  app->add_option("--node", o->names.node, "name of this board (the host's)")->check(NoTopic);
  app->add_option("--topic", o->names.topic, "topic of all boards (talp)")->check(NoTopic);
  app->add_option("--talp", o->talp, "host of talp (127.0.0.1)");
  app->add_option("--io-port", o->ioPort, "IO port (as in talpconf.xml)")->check(port);
  app->add_option("--cae-port", o->caePort, "the console's likewise; 0: never ask it")->check(port);
  app->add_option("--home-assistant", o->names.homeAssistant, "prefix; empty: off")->check(NoTopic);
}

// What the options leave out.
void Complete(OPTIONS* o) {
  Require(!o->names.topic.empty() && !o->names.node.empty(), "--topic or --node is empty");
  if (o->broker.port == 0) o->broker.port = o->broker.tlsCa.empty() ? 1883 : 8883;
  std::getline(std::ifstream(o->passwordFile), o->broker.password);
  if (o->ioPort < 0 || o->caePort < 0) o->config = ReadConfigFile(kConfigFile);
  Require(o->config.errorText == kNoConfigError, kConfigFile + (": " + o->config.errorText));
  if (o->ioPort >= 0) o->config.io.port = o->ioPort;
  if (o->caePort >= 0) o->config.cae.port = o->caePort;
  const INTERFACE_DESCRIPTOR& io = o->config.io;
  Require(io.port != 0 && !io.inpSeparator.empty(), "no IO port, or no InpSeparator of it");
}

// Joins the three connections: broker, IO port and, now and then, console.
class BRIDGE : public NODE {
 public:
  explicit BRIDGE(const OPTIONS& options)
      : NODE(options.names, options.config.io.inpSeparator, options.config.cae.port != 0),
        asksConsole_(options.config.cae.port != 0),
        broker_(options.broker, this),
        io_("IO port", options.talp, options.config.io),
        console_("console", options.talp, options.config.cae) {}

  // Runs until `signals`, a signalfd(2), is readable; then publishes that the board is offline.
  void Run(int signals) {
    for (bool isAsked = false; !isAsked;) {
      broker_.Run();
      // While the broker lags behind, talp keeps its lines.
      const bool isBehind = broker_.Unacknowledged() > 5000;
      for (const std::string& line : isBehind ? LINES() : io_.Run(true)) {
        OnLine(line);
        if (io_.Works() || line != "TALP IO interface is ready") continue;
        io_.Succeeded();
        OnIo(true);
      }
      if (!io_.Works()) OnIo(false);
      for (const std::string& line : console_.Run(asksConsole_)) OnConsoleLine(line);
      // The place belongs to people.
      if (console_.Works() && console_.Age() > seconds(10)) console_.Close("no list of cards");
      const pollfd io = isBehind ? pollfd{-1, 0, 0} : io_.Poll();
      pollfd polled[] = {{signals, POLLIN, 0}, broker_.Poll(), io, console_.Poll()};
      poll(polled, std::size(polled), io_.Pause());
      isAsked = polled[0].revents != 0;
    }
    OnIo(false);
    for (int tries = 200; tries > 0 && broker_.Unacknowledged() > 0; --tries) {
      broker_.Run();
      poll(nullptr, 0, 10);
    }
  }

 private:
  void Publish(const std::string& topic, const std::string& payload, bool retain) override {
    broker_.Publish(topic, payload, retain);
  }
  bool Send(const LINES& lines) override { return io_.Send(lines); }
  // An answer that is under way is as good as another one.
  void Discover() override { asksConsole_ = asksConsole_ || !console_.Works(); }

  // The list has an entry for each address, such as "DTI:0x5:EMPTY", in order, and a prompt behind
  // it. Around them may stand errors in IO lines, with prompts of their own.
  void OnConsoleLine(const std::string& line) {
    if (!console_.Works() && line == "TALP CAE interface is ready") {
      console_.Succeeded();
      asksConsole_ = false;
      kinds_.clear();
      console_.Send({"DISCOVER"});
    } else if (line.size() > 8 && line.compare(0, 6, "DTI:0x") == 0) {
      kinds_.push_back(line.substr(8));
    } else if (line == ">" && kinds_.size() == kAddressCount) {
      console_.Close("the cards are known");
      OnKinds(std::exchange(kinds_, {}));
    }
  }

  bool asksConsole_;
  LINES kinds_;  // as far as the console has listed them
  BROKER broker_;
  LINE_LINK io_;
  LINE_LINK console_;
};

}  // namespace

int main(int argc, char** argv) {
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
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a peer that is gone is no reason to end
  BRIDGE(options).Run(signalfd(-1, &signals, SFD_CLOEXEC));
  return 0;
}

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <string>

#include "check/config_check.h"
#include "check/running_check.h"

namespace {

constexpr char kDescription[] =
    "Tells whether talp's configuration says what it seems to say, and whether the daemon that\n"
    "runs does what its configuration says. Changes nothing and never connects to talp.\n";

constexpr char kFooter[] =
    "Each finding is one line, \"PLACE: ok|warning|error: what, and what to do\".\n"
    "  error    talp does not start, or does not serve as the configuration says: a document\n"
    "           that cannot be read, a Port refused, above 65535 or shared, an interface missing;\n"
    "           no talp running by its PID file, a configured port not listened on\n"
    "  warning  talp serves all the same: unknown elements and attributes, Speed behind\n"
    "           Interfaces, a fifth or a second interface of a name, Percent, Loglevel or Action\n"
    "           values without effect, an empty InpSeparator, a log that cannot be written; an\n"
    "           adapter that is missing, silent or not allowed, which talp tries again by itself\n"
    "Exit status: 1 if there is an error (with --strict: or a warning), else 0.\n\n"
    "Whether the log can be written is asked for the user that runs this. As the service sees it:\n"
    "  runuser -u talp -- talp-check config\n"
    "To look into a daemon of another user, root is needed:\n"
    "  sudo talp-check running\n";

constexpr char kConfigFile[] = "/etc/talp/talpconf.xml";
// A client that leaves makes its interface pause for some four seconds before it listens again.
constexpr int kDefaultPatience = 6;
constexpr int kLongestPatience = 3600;
constexpr int kFailed = 1;

struct OPTIONS {
  std::string file = kConfigFile;
  int patience = kDefaultPatience;  // seconds
  bool strict = false;
};

// CLI11 has exit statuses of its own; here a wrong command line is a failed check.
int Run(CLI::App* app, int argc, char** argv, const OPTIONS& options) {
  try {
    app->parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app->exit(end) == 0 ? 0 : kFailed;
  }
  const check::FINDINGS findings =
      app->got_subcommand("config")
          ? check::CheckConfig(options.file)
          : check::CheckRunning(options.file, std::chrono::seconds(options.patience));
  check::Print(findings, &std::cout);
  const check::Severity worst = options.strict ? check::Warning : check::Error;
  return check::WorstOf(findings) >= worst ? kFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
  OPTIONS options;
  CLI::App app(kDescription, "talp-check");
  app.footer(kFooter);
  app.require_subcommand(1);
  CLI::App* const config = app.add_subcommand("config", "check a configuration");
  CLI::App* const running =
      app.add_subcommand("running", "check the running daemon against its configuration");
  for (CLI::App* const verb : {config, running}) {
    verb->add_option("FILE", options.file, "the configuration")->capture_default_str();
    verb->add_flag("--strict", options.strict, "let warnings fail the check, too");
  }
  running
      ->add_option("--wait", options.patience, "how long an error must last to count, in seconds")
      ->check(CLI::Range(0, kLongestPatience))
      ->capture_default_str();
  return Run(&app, argc, argv, options);
}

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <string>

#include "check/config_check.h"
#include "check/running_check.h"
#include "core/paths.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr int kLongestWait = 3600;  // seconds
constexpr int kOptionColumn = 22;

constexpr char kDescription[] =
    "Checks talp's configuration and the running talp. Nothing is changed, and no connection is\n"
    "made to talp. Each finding is one line:\n"
    "  PLACE: ok|warning|error: what, and what to do\n"
    "An error means that talp does not start or does not serve as configured. With a warning it\n"
    "runs, but not as somebody may expect; talp-check(1) lists both.";

constexpr char kFooter[] =
    "Exit status: 0 without errors (with --strict, without findings), 1 with them, 2 when the\n"
    "command line is wrong.\n\n"
    "Whether the log can be written is checked for the user who runs this. As the service:\n"
    "  runuser -u talp -- talp-check config\n"
    "Only root can inspect a daemon of another user:\n"
    "  sudo talp-check running";

struct OPTIONS {
  std::string file = kConfigFile;
  int wait = 6;  // seconds
  bool strict = false;
};

CLI::App* AddCommand(const char* name, const char* description, CLI::App* app, OPTIONS* options) {
  CLI::App* const command = app->add_subcommand(name, description);
  command->add_flag("--strict", options->strict, "fail on warnings as well as on errors");
  command->add_option("FILE", options->file, "the configuration; default " + options->file)
      ->option_text(" ");
  return command;
}

void AddWait(CLI::App* running, OPTIONS* options) {
  running
      ->add_option("--wait", options->wait,
                   "look again for so long while there is an error; default 6")
      ->check(CLI::Range(0, kLongestWait))
      ->option_text("SECONDS");
}

int Report(const check::FINDINGS& findings, bool strict) {
  check::Print(findings, &std::cout);
  const check::SEVERITY worst = strict ? check::kWarning : check::kError;
  return check::WorstOf(findings) >= worst ? kFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
  OPTIONS options;
  CLI::App app(kDescription, "talp-check");
  app.footer(kFooter);
  app.get_formatter()->column_width(kOptionColumn);
  app.set_version_flag("--version", "talp-check " TALP_VERSION);
  app.require_subcommand(1);
  const CLI::App* const config = AddCommand(
      "config", "report what is wrong, or has no effect, in the configuration", &app, &options);
  CLI::App* const running = AddCommand(
      "running", "compare the running talp with it: process, ports, adapter, log", &app, &options);
  AddWait(running, &options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& stop) {
    return app.exit(stop) == 0 ? 0 : kWrongUsage;
  }
  const check::FINDINGS findings =
      config->parsed() ? check::CheckConfig(options.file)
                       : check::CheckRunning(options.file, std::chrono::seconds(options.wait));
  return Report(findings, options.strict);
}

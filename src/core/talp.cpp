#include "core/talp.h"

#include <syslog.h>
#include <unistd.h>

#include "core/byte_list.h"
#include "core/log_texts.h"
#include "core/paths.h"

namespace {

// Reported to syslog, because the log file's name is in the configuration that was not read.
void ReportLoadError() {
  // No other thread runs yet. NOLINTNEXTLINE(concurrency-mt-unsafe)
  setlogmask(LOG_UPTO(LOG_NOTICE));
  syslog(LOG_NOTICE,
         "Unable to start by user %d, because unable to load config, or unable to parse XML file!",
         static_cast<int>(getuid()));
  closelog();
}

}  // namespace

TALP::TALP(const LOGGER& logger, SHARED<int>* signalFlag)
    : logger_(logger), signalFlag_(signalFlag) {}

TALP::~TALP() = default;

CONFIG_DESCRIPTOR TALP::ReadConfig() {
  CONFIG_DESCRIPTOR config = ReadConfigFile(kConfigFile);
  if (config.errorText == kConfigLoadError) ReportLoadError();
  return config;
}

void TALP::LogStart(const char* parameter, const std::string& value) {
  logger_.LOG(kInfo, std::string("Initparam ") + parameter + ": " + value, kLogLevel);
}

bool TALP::InitProgramData() {
  config_ = ReadConfig();
  masterDelay_ = config_.threadDelay;
  logger_.fileName = config_.logFile;
  logger_.level = config_.logLevel;
  logger_.LOG(kInfo, kLogStarted, kLogLevel);
  if (config_.errorText != kNoConfigError) {
    logger_.LOG(kError, config_.errorText, kLogLevel);
    logger_.LOG(kInfo, "talp is stopped with error", kLogLevel);
    return false;
  }
  LogStart("Autodiscover", BTOA(config_.autoDiscover));
  LogStart("Enablepoll", BTOA(config_.pollEnable));
  LogStart("Speed (ThreadDelay)", ITOA(config_.threadDelay));
  return true;
}

std::unique_ptr<SOCKET_INTERFACE> TALP::StartInterface(const INTERFACE_DESCRIPTOR& descriptor,
                                                       TLQUEUE* inputQueue) {
  auto started =
      std::make_unique<SOCKET_INTERFACE>(descriptor, logger_, inputQueue, FramingMode::Text);
  started->Init();
  return started;
}

void TALP::InitInterfaces() {
  cae_ = StartInterface(config_.cae, &caeInput_);
  io_ = StartInterface(config_.io, &ioInput_);
  mon_ = StartInterface(config_.mon, &monInput_);
  // Connects by itself, from its first cycle on.
  serial_ = std::make_unique<SERIAL_INTERFACE>("", logger_, &cardInput_, &cards_,
                                               config_.pollEnable, config_.autoDiscover);
  serial_->threadDelay = config_.threadDelay;
}

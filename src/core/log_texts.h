#ifndef TALP_CORE_LOG_TEXTS_H_
#define TALP_CORE_LOG_TEXTS_H_

// Texts of the log by which other programs tell what the daemon does; fixed, double blanks too, see
// docs/architecture.md. Those that end with a blank are followed by the path of an adapter.
constexpr char kLogStarted[] = "talp is started";
constexpr char kLogStopped[] = "talp is stopped by SIGTERM or SIGINT";
constexpr char kLogNoAdapter[] = "ttyUSB devices couldn't be found";
constexpr char kLogTrying[] = "try to catch hardware on ";
constexpr char kLogFound[] = "hardware found on ";
constexpr char kLogTimeout[] = "comm timeout ";
constexpr char kLogCannotOpen[] = "unable to  open ";
constexpr char kLogCannotWrite[] = "unable to  write to ";
constexpr char kLogCannotSetUp[] = " from tcsetattr";  // behind the error number

#endif  // TALP_CORE_LOG_TEXTS_H_

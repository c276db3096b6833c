// To be preloaded into the daemon: stands between it and the system. Waits for a busy machine,
// steps the clock, and records the daemon's calls and lets them fail.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// The library's own function, which the template is given for its type.
template <typename FUNCTION, typename... A>
auto Next(const char* name, FUNCTION*, A... values) {
  return reinterpret_cast<FUNCTION*>(dlsym(RTLD_NEXT, name))(values...);
}

// The shells that the daemon starts do without: they may be of another architecture.
__attribute__((constructor)) void KeepToTheDaemon() { unsetenv("LD_PRELOAD"); }

// Appends "NAME ARGUMENTS" to the file TALP_CALLS.
void Record(const std::string& line) {
  static const char* const path = std::getenv("TALP_CALLS");
  if (path == nullptr) return;
  const int file = Next("open", &open, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  dprintf(file, "%s\n", line.c_str());
  close(file);
}

// TALP_FAIL is "NAME ERRNO SKIPPED COUNT": so many calls of that function fail after so many
// others.
bool Fails(const char* name) {
  static const char* const setting = std::getenv("TALP_FAIL");
  static std::atomic<int> calls{0};
  char which[32] = "";
  int error = 0;
  int skipped = 0;
  int count = 0;
  if (setting == nullptr) return false;
  if (std::sscanf(setting, "%31s %d %d %d", which, &error, &skipped, &count) != 4) return false;
  if (std::strcmp(which, name) != 0) return false;
  const int call = calls++;
  if (call < skipped || call >= skipped + count) return false;
  errno = error;
  return true;
}

template <typename FUNCTION, typename... A>
auto Call(const char* name, const std::string& arguments, FUNCTION* function, A... values) {
  Record(std::string(name) + arguments);
  using RESULT = decltype(function(values...));
  return Fails(name) ? static_cast<RESULT>(-1) : Next(name, function, values...);
}

std::string Text() { return ""; }

template <typename... REST>
std::string Text(long value, REST... rest) {
  return " " + std::to_string(value) + Text(rest...);
}

// The clock is as many seconds off the real one as the file /run/clock_step says, if there is one.
time_t Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  long step = 0;
  FILE* const file = Next("fopen", &fopen, "/run/clock_step", "re");
  if (file != nullptr) {
    char text[32] = "";
    if (std::fgets(text, sizeof text, file) != nullptr) step = std::strtol(text, nullptr, 10);
    std::fclose(file);
  }
  return now.tv_sec + step;
}

}  // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the library's are reserved
extern "C" {

// The daemon waits for a reply by a number of read attempts, which take some tens of milliseconds;
// a busy machine may give the simulated bus its turn later than that. So one of very many attempts
// in vain waits until there is something to read, for 50 ms at most. A reply that never comes is
// given up half a second later (150000 attempts), or a whole one.
ssize_t read(int file, void* bytes, size_t size) {
  using READ = ssize_t (*)(int, void*, size_t);
  static const READ next = reinterpret_cast<READ>(dlsym(RTLD_NEXT, "read"));
  thread_local int inVain = 0;
  const ssize_t count = next(file, bytes, size);
  const int error = errno;
  inVain = count > 0 ? 0 : inVain + 1;
  pollfd polled = {file, POLLIN, 0};
  if (inVain % 15000 == 14999) poll(&polled, 1, 50);
  errno = error;
  return count;
}

time_t time(time_t* result) noexcept {
  const time_t now = Now();
  if (result != nullptr) *result = now;
  return now;
}

pid_t fork() noexcept { return Call("fork", "", &fork); }
pid_t setsid() noexcept { return Call("setsid", "", &setsid); }

FILE* fopen(const char* path, const char* mode) {
  Record(std::string("fopen ") + path + " " + mode);
  return Next("fopen", &fopen, path, mode);
}

sighandler_t signal(int number, sighandler_t handler) noexcept {
  Record("signal" + Text(number));
  return Next("signal", &signal, number, handler);
}

int setlogmask(int mask) noexcept { return Call("setlogmask", Text(mask), &setlogmask, mask); }

void closelog() {
  Record("closelog");
  Next("closelog", &closelog);
}

int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is, above
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  Record(std::string("open ") + path + Text(flags, mode));
  return Fails("open") ? -1 : Next("open", &open, path, flags, mode);
}

int socket(int domain, int type, int protocol) noexcept {
  return Call("socket", Text(domain, type, protocol), &socket, domain, type, protocol);
}

int setsockopt(int file, int level, int name, const void* value, socklen_t size) noexcept {
  const std::string text = Text(level, name, *static_cast<const int*>(value));
  return Call("setsockopt", text, &setsockopt, file, level, name, value, size);
}

int bind(int file, const sockaddr* address, socklen_t size) noexcept {
  const auto* const in = reinterpret_cast<const sockaddr_in*>(address);
  const std::string text = Text(ntohl(in->sin_addr.s_addr), ntohs(in->sin_port));
  return Call("bind", text, &bind, file, address, size);
}

int listen(int file, int backlog) noexcept {
  return Call("listen", Text(backlog), &listen, file, backlog);
}

int accept4(int file, sockaddr* address, socklen_t* size, int flags) {
  return Call("accept4", Text(flags), &accept4, file, address, size, flags);
}

int ppoll(pollfd* polled, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  return Fails("ppoll") ? -1 : Next("ppoll", &ppoll, polled, count, timeout, mask);
}

ssize_t send(int file, const void* bytes, size_t size, int flags) {
  return Call("send", Text(static_cast<long>(size), flags), &send, file, bytes, size, flags);
}

int tcsetattr(int file, int when, const termios* line) noexcept {
  return Call("tcsetattr", Text(when), &tcsetattr, file, when, line);
}

int ioctl(int file, unsigned long request, ...) noexcept {
  va_list rest;
  va_start(rest, request);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  Record("ioctl" + Text(static_cast<long>(request)));
  return Next("ioctl", &ioctl, file, request, argument);
}

ssize_t write(int file, const void* bytes, size_t size) {
  if (isatty(file) == 0) return Next("write", &write, file, bytes, size);
  return Call("write", Text(static_cast<long>(size)), &write, file, bytes, size);
}

// A pause is recorded when it is another one than the thread's last.
int usleep(useconds_t pause) {
  thread_local useconds_t last = 0;
  if (pause != last) Record("usleep" + Text(pause));
  last = pause;
  return Next("usleep", &usleep, pause);
}

int nanosleep(const timespec* pause, timespec* rest) {
  thread_local long last = 0;
  if (pause->tv_nsec != last) Record("nanosleep" + Text(pause->tv_nsec));
  last = pause->tv_nsec;
  return Next("nanosleep", &nanosleep, pause, rest);
}

FILE* popen(const char* command, const char* mode) {
  Record(std::string("popen ") + mode + " " + command);
  return Next("popen", &popen, command, mode);
}

int pclose(FILE* file) { return Call("pclose", "", &pclose, file); }

int pthread_create(pthread_t* thread, const pthread_attr_t* settings, void* (*body)(void*),
                   void* argument) noexcept {
  if (Fails("pthread_create")) return EAGAIN;
  return Next("pthread_create", &pthread_create, thread, settings, body, argument);
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

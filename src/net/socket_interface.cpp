#include "net/socket_interface.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/sleepsec.h"
#include "thread/sleep.h"

namespace {

constexpr std::size_t kReadSize = 255;
constexpr int kBacklog = 1;
constexpr int kAcceptPause = 3;          // seconds
constexpr int kReopenPause = 2;          // seconds
constexpr unsigned kStartPause = 50000;  // 5 ms
constexpr unsigned kParkPause = 5000;    // 0.5 ms

// Dotted address and port. The port is printed as it stands in the address record, in network byte
// order, so that it comes out byte-swapped (50000 as 20675): the form that readers of the log know.
std::string PeerText(const sockaddr_in& peer) {
  char address[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
  return std::string(address) + ":" + std::to_string(peer.sin_port);
}

// One poll of `socket` for readable, writable and exceptional, for a microsecond. Done with
// ppoll(2) because a descriptor of 1024 or more does not fit a select(2) set. Returns the events or
// -1.
int PollEvents(int socket) {
  pollfd entry{};
  entry.fd = socket;
  entry.events = POLLIN | POLLOUT | POLLPRI;
  const timespec timeout = {0, 1000};
  return ppoll(&entry, 1, &timeout, nullptr) < 0 ? -1 : entry.revents;
}

struct SOCKET_OPTION {
  int level;
  int name;
  int value;
};

// Of a client's socket (tcp(7)). Without TCP_NODELAY a second short line would wait until the
// client acknowledges the first, for tens of milliseconds. The keepalive finds out, within two
// minutes, that a client has gone without a word (its power failed, its cable was pulled), and
// frees its place.
constexpr SOCKET_OPTION kClientOptions[] = {
    {IPPROTO_TCP, TCP_NODELAY, 1},    {SOL_SOCKET, SO_KEEPALIVE, 1},
    {IPPROTO_TCP, TCP_KEEPIDLE, 60},   // seconds
    {IPPROTO_TCP, TCP_KEEPINTVL, 20},  // seconds
    {IPPROTO_TCP, TCP_KEEPCNT, 3},
};

int AcceptOn(int listener, sockaddr_in* peer) {
  socklen_t size = sizeof *peer;
  const int client = accept4(listener, reinterpret_cast<sockaddr*>(peer), &size, SOCK_CLOEXEC);
  if (client < 0) return client;
  for (const SOCKET_OPTION& option : kClientOptions) {
    setsockopt(client, option.level, option.name, &option.value, sizeof option.value);
  }
  return client;
}

}  // namespace

SOCKET_INTERFACE::SOCKET_INTERFACE(const INTERFACE_DESCRIPTOR& settings, const LOGGER& logger,
                                   TLQUEUE* inputQueue, int framingMode)
    : descriptor(settings), logger_(logger), inputQueue_(inputQueue), framingMode_(framingMode) {
  SetThreadType(IntervalDriven, 1);
  Sleep(kStartPause);
}

SOCKET_INTERFACE::~SOCKET_INTERFACE() {
  {
    MUTEX_GUARD guard(&socketLock_);
    ending_ = true;
    ShutDownSockets();
  }
  Stop();
  CloseSockets();
}

void SOCKET_INTERFACE::LogInterface(const char* caption, const char* text) {
  logger_.LOG(caption, text + descriptor.name + " interface", kLogLevel);
}

bool SOCKET_INTERFACE::Init() {
  const int listener = OpenListener();
  if (listener < 0) return false;
  const std::string port = " on port " + ITOA(descriptor.port);
  // Port 0 is that of an interface that is not configured. The system would choose one, and the
  // console would be open where nobody looks for it.
  if (descriptor.port == 0 || listen(listener, kBacklog) != 0) {
    logger_.LOG(kError, descriptor.name + " interface listening error" + port, kLogLevel);
    close(listener);
    return false;
  }
  // Logged before the state invites the task, so that the log tells the two in order.
  logger_.LOG(kInfo, descriptor.name + " interface listening" + port, kLogLevel);
  KeepListener(listener);
  descriptor.state = Listening;
  return true;
}

int SOCKET_INTERFACE::OpenListener() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) {
    LogInterface(kError, "couldn't open socket for");
    return -1;
  }
  const int on = 1;
  if (setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    LogInterface(kError, "couldn't set socket options for");
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(static_cast<std::uint16_t>(descriptor.port));
  const sockaddr* const generic = reinterpret_cast<const sockaddr*>(&address);
  if (bind(listener, generic, sizeof address) != 0) {
    LogInterface(kError, "couldn't bind socket for");
  }
  return listener;
}

bool SOCKET_INTERFACE::OnTask() {
  PauseMicroseconds(descriptor.delay);
  // Not an else-chain: a state set by one step is acted on by the later ones of the same cycle.
  if (descriptor.state == Listening) AcceptClient();
  if (descriptor.state == Connected) ServeClient();
  if (descriptor.state == Closed) Reopen();
  if (descriptor.name == "DMI") Park();
  return true;
}

void SOCKET_INTERFACE::AcceptClient() {
  logger_.LOG(kInfo, descriptor.name + " interface is waiting for incoming connection", kLogLevel);
  if (!Advance(Listening, Accepting)) return;
  sleepsec(kAcceptPause);
  sockaddr_in peer{};
  const int client = AcceptOn(listener_, &peer);
  KeepClient(client);
  // A close by command has ended the wait, and has been logged as such.
  if (descriptor.state == Closed) return;
  // A failed accept goes the same way: the next read fails, and the interface opens anew.
  if (client < 0) LogInterface(kError, "socket accept error on ");
  logger_.LOG(kInfo,
              "client is connected on " + descriptor.name + " interface from " + PeerText(peer),
              kLogLevel);
  const std::string banner = BannerOf(descriptor.name);
  if (!banner.empty()) outputQueue.ToQueue(Convert_String2QList(banner));
  Advance(Accepting, Connected);
}

void SOCKET_INTERFACE::ServeClient() {
  const bool left = !ReceiveFromClient();
  if (outputQueue.IsEmpty()) return;
  // What is queued after a close by command is for the next client. Asked in this order: whoever
  // queues it has closed first.
  if (!left && descriptor.state == Closed) return;
  Deliver();
}

// Reads once if there is something to read. False if the client was found gone.
bool SOCKET_INTERFACE::ReceiveFromClient() {
  // Without a client, after a failed accept, the read is to fail at once.
  const int events = client_ < 0 ? POLLIN : PollEvents(client_);
  if (events < 0) {
    LogInterface(kError, "socket select error on ");
    return true;
  }
  if ((events & (POLLIN | POLLHUP | POLLERR)) == 0) return true;
  char bytes[kReadSize];
  const ssize_t count = read(client_, bytes, sizeof bytes);
  if (count > 0) {
    inputQueue_->ToQueue(DecodeInbound(framingMode_, bytes, static_cast<std::size_t>(count)));
    return true;
  }
  // A close by command also ends the reading, and has been logged as such.
  if (descriptor.state == Closed) return true;
  LogInterface(kInfo, "connection is closed by client on ");
  CloseSockets();
  reopenCounter_ = 0;
  descriptor.state = Closed;
  return false;
}

// Blocks while the client does not read. A message that cannot be written is lost, without a
// SIGPIPE, and the connection is kept.
void SOCKET_INTERFACE::Deliver() {
  const std::string bytes = EncodeOutbound(framingMode_, outputQueue.DeQueue());
  if (send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
    LogInterface(kError, "socket write error on ");
  }
}

void SOCKET_INTERFACE::Reopen() {
  CloseSockets();
  reopenCounter_ = reopenCounter_ + 1;
  sleepsec(kReopenPause);
  if (reopenCounter_ > 1) Init();
}

// An interface of this name is not served; it only ends when the object does.
void SOCKET_INTERFACE::Park() {
  LogInterface(kInfo, "On task ");
  while (!StopRequested()) Sleep(kParkPause);
}

void SOCKET_INTERFACE::CloseByCommand() {
  {
    MUTEX_GUARD guard(&socketLock_);
    // The counter first: the task counts from the moment that the state says closed.
    reopenCounter_ = 0;
    descriptor.state = Closed;
    ShutDownSockets();
  }
  // The client's end must not wait for a slow disk.
  LogInterface(kInfo, "connection is closed by command on ");
}

void SOCKET_INTERFACE::mf_SIGhandler(int signal) {
  logger_.LOG(kInfo, "signal " + ITOA(signal) + " on " + descriptor.name + " interface", kLogLevel);
}

// False if a close by command has come in between; its state stands.
bool SOCKET_INTERFACE::Advance(InterfaceState from, InterfaceState to) {
  MUTEX_GUARD guard(&socketLock_);
  if (descriptor.state != from) return false;
  descriptor.state = to;
  return true;
}

void SOCKET_INTERFACE::KeepListener(int listener) {
  MUTEX_GUARD guard(&socketLock_);
  listener_ = listener;
  if (ending_) ShutDownSockets();
}

void SOCKET_INTERFACE::KeepClient(int client) {
  MUTEX_GUARD guard(&socketLock_);
  client_ = client;
  if (ending_) ShutDownSockets();
}

// The caller holds the socket lock.
void SOCKET_INTERFACE::ShutDownSockets() {
  if (client_ >= 0) shutdown(client_, SHUT_RDWR);
  if (listener_ >= 0) shutdown(listener_, SHUT_RDWR);
}

void SOCKET_INTERFACE::CloseSockets() {
  MUTEX_GUARD guard(&socketLock_);
  if (client_ >= 0) close(client_);
  if (listener_ >= 0) close(listener_);
  client_ = -1;
  listener_ = -1;
}

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
#include <utility>

#include "core/sleepsec.h"
#include "thread/sleep.h"

namespace {

constexpr int kBacklog = 1;
constexpr int kAcceptPause = 3;          // seconds
constexpr int kReopenPause = 2;          // seconds
constexpr unsigned kStartPause = 50000;  // 5 ms
constexpr unsigned kParkPause = 5000;    // 0.5 ms

// Dotted address and port. The port is printed without conversion from network byte order, so on a
// little-endian machine port 50000 is logged as 20675. Fixed, see docs/architecture.md.
std::string PeerText(const sockaddr_in& peer) {
  char address[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
  return std::string(address) + ":" + std::to_string(peer.sin_port);
}

// Polls `socket` for one microsecond. Returns the events, or -1 on an error. ppoll(2) also takes a
// descriptor of 1024 or more, which does not fit into a set of select(2).
int PollEvents(const FILE_DESCRIPTOR& socket) {
  pollfd entry{};
  entry.fd = socket.Number();
  entry.events = POLLIN | POLLOUT | POLLPRI;
  const timespec timeout = {0, 1000};
  return ppoll(&entry, 1, &timeout, nullptr) < 0 ? -1 : entry.revents;
}

struct SOCKET_OPTION {
  int level;
  int name;
  int value;
};

// Options of a client's socket (tcp(7)). Without TCP_NODELAY a second short line would wait tens of
// milliseconds until the client acknowledges the first. The keepalive detects within two minutes
// that a client's power has failed or its cable was pulled, so that another can connect.
constexpr SOCKET_OPTION kClientOptions[] = {
    {IPPROTO_TCP, TCP_NODELAY, 1},    {SOL_SOCKET, SO_KEEPALIVE, 1},
    {IPPROTO_TCP, TCP_KEEPIDLE, 60},   // seconds
    {IPPROTO_TCP, TCP_KEEPINTVL, 20},  // seconds
    {IPPROTO_TCP, TCP_KEEPCNT, 3},
};

FILE_DESCRIPTOR AcceptOn(const FILE_DESCRIPTOR& listener, sockaddr_in* peer) {
  socklen_t size = sizeof *peer;
  sockaddr* const generic = reinterpret_cast<sockaddr*>(peer);
  FILE_DESCRIPTOR client(accept4(listener.Number(), generic, &size, SOCK_CLOEXEC));
  if (!client.IsOpen()) return client;
  for (const SOCKET_OPTION& option : kClientOptions) {
    setsockopt(client.Number(), option.level, option.name, &option.value, sizeof option.value);
  }
  return client;
}

}  // namespace

SOCKET_INTERFACE::SOCKET_INTERFACE(const INTERFACE_DESCRIPTOR& settings, const LOGGER& logger,
                                   TLQUEUE* inputQueue, FramingMode framingMode)
    : descriptor(settings), logger_(logger), inputQueue_(inputQueue), framingMode_(framingMode) {
  SetThreadType(ThreadType_t::IntervalDriven, 1);
  Sleep(kStartPause);
}

SOCKET_INTERFACE::~SOCKET_INTERFACE() {
  {
    MUTEX_GUARD guard(&socketLock_);
    ending_ = true;
    ShutDownSockets();
  }
  Stop();
}

void SOCKET_INTERFACE::LogInterface(const char* caption, const char* text) {
  logger_.LOG(caption, text + descriptor.name + " interface", kLogLevel);
}

bool SOCKET_INTERFACE::Init() { return Listen(ReopenCounter()); }

bool SOCKET_INTERFACE::Listen(int reopenCounter) {
  FILE_DESCRIPTOR listener = OpenListener();
  if (!listener.IsOpen()) return false;
  const std::string port = " on port " + ITOA(descriptor.port);
  // Port 0 means that the interface is not configured. The system would choose a port, on which the
  // interface would be open without anybody knowing it.
  if (descriptor.port == 0 || listen(listener.Number(), kBacklog) != 0) {
    logger_.LOG(kError, descriptor.name + " interface listening error" + port, kLogLevel);
    return false;
  }
  // Logged before the state changes, because the task then logs that it waits for a client.
  logger_.LOG(kInfo, descriptor.name + " interface listening" + port, kLogLevel);
  return KeepListener(std::move(listener), reopenCounter);
}

FILE_DESCRIPTOR SOCKET_INTERFACE::OpenListener() {
  FILE_DESCRIPTOR listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!listener.IsOpen()) {
    LogInterface(kError, "couldn't open socket for");  // no blank: fixed, see architecture.md
    return listener;
  }
  const int on = 1;
  if (setsockopt(listener.Number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    LogInterface(kError, "couldn't set socket options for");
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(static_cast<std::uint16_t>(descriptor.port));
  const sockaddr* const generic = reinterpret_cast<const sockaddr*>(&address);
  if (bind(listener.Number(), generic, sizeof address) != 0) {
    LogInterface(kError, "couldn't bind socket for");
  }
  return listener;
}

bool SOCKET_INTERFACE::OnTask() {
  PauseMicroseconds(descriptor.delay);
  // Not an else-chain: the later steps of a cycle act on a state that an earlier one has set.
  if (descriptor.state == InterfaceState::Listening) AcceptClient();
  if (descriptor.state == InterfaceState::Connected) ServeClient();
  if (descriptor.state == InterfaceState::Closed) Reopen();
  if (descriptor.name == "DMI") Park();
  return true;
}

void SOCKET_INTERFACE::AcceptClient() {
  logger_.LOG(kInfo, descriptor.name + " interface is waiting for incoming connection", kLogLevel);
  {
    MUTEX_GUARD guard(&socketLock_);
    if (descriptor.state != InterfaceState::Listening) return;  // closed by command
    descriptor.state = InterfaceState::Accepting;
  }
  sleepsec(kAcceptPause);
  sockaddr_in peer{};
  KeepClient(AcceptOn(listener_, &peer));
  // A close by command has ended the wait, and is logged already.
  if (descriptor.state == InterfaceState::Closed) return;
  // After a failed accept the next read fails, and the interface closes and listens again.
  if (!client_.IsOpen()) LogInterface(kError, "socket accept error on ");
  logger_.LOG(kInfo,
              "client is connected on " + descriptor.name + " interface from " + PeerText(peer),
              kLogLevel);
  Greet();
}

// Queues the banner and sets the state in one step: a banner that is queued for a client which a
// command has already closed would greet the next client a second time.
void SOCKET_INTERFACE::Greet() {
  MUTEX_GUARD guard(&socketLock_);
  if (descriptor.state != InterfaceState::Accepting) return;
  const std::string banner = BannerOf(descriptor.name);
  if (!banner.empty()) outputQueue.ToQueue(Convert_String2QList(banner));
  descriptor.state = InterfaceState::Connected;
}

void SOCKET_INTERFACE::ServeClient() {
  const bool left = !ReceiveFromClient();
  if (outputQueue.IsEmpty()) return;
  // The master closes before it queues a message for the next client. So the queue is checked
  // first: once such a message is visible, so is the closed state.
  if (!left && descriptor.state == InterfaceState::Closed) return;
  Deliver();
}

// Reads once if there is something to read. False if the client has gone.
bool SOCKET_INTERFACE::ReceiveFromClient() {
  // Without a client, after a failed accept, the read below fails and closes the interface.
  const int events = client_.IsOpen() ? PollEvents(client_) : POLLIN;
  if (events < 0) {
    LogInterface(kError, "socket select error on ");
    return true;
  }
  if ((events & (POLLIN | POLLHUP | POLLERR)) == 0) return true;
  char bytes[kClientReadSize];
  const ssize_t count = read(client_.Number(), bytes, sizeof bytes);
  if (count > 0) {
    inputQueue_->ToQueue(DecodeInbound(framingMode_, bytes, static_cast<std::size_t>(count)));
    return true;
  }
  // A close by command also ends the reading, and is logged already.
  if (descriptor.state == InterfaceState::Closed) return true;
  LogInterface(kInfo, "connection is closed by client on ");
  MUTEX_GUARD guard(&socketLock_);
  CloseSockets();
  SetClosed();
  return false;
}

// Blocks while the client does not read. A message that cannot be written is lost; the connection
// stays. MSG_NOSIGNAL: SIGPIPE would end the daemon.
void SOCKET_INTERFACE::Deliver() {
  const std::string bytes = EncodeOutbound(framingMode_, outputQueue.DeQueue());
  if (send(client_.Number(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
    LogInterface(kError, "socket write error on ");
  }
}

void SOCKET_INTERFACE::Reopen() {
  {
    MUTEX_GUARD guard(&socketLock_);
    CloseSockets();
    ++reopenCounter_;
  }
  sleepsec(kReopenPause);
  const int reopenCounter = ReopenCounter();
  if (reopenCounter > 1) Listen(reopenCounter);
}

// An interface of this name serves nobody. It waits for the end of the object.
void SOCKET_INTERFACE::Park() {
  LogInterface(kInfo, "On task ");
  while (!StopRequested()) Sleep(kParkPause);
}

void SOCKET_INTERFACE::CloseByCommand() {
  {
    MUTEX_GUARD guard(&socketLock_);
    SetClosed();
    ShutDownSockets();
  }
  // Logged after the close, so that a slow disk does not delay it.
  LogInterface(kInfo, "connection is closed by command on ");
}

void SOCKET_INTERFACE::mf_SIGhandler(int signal) {
  logger_.LOG(kInfo, "signal " + ITOA(signal) + " on " + descriptor.name + " interface", kLogLevel);
}

int SOCKET_INTERFACE::ReopenCounter() {
  MUTEX_GUARD guard(&socketLock_);
  return reopenCounter_;
}

// False if a close by command has reset the counter since `reopenCounter` was read. The listener is
// then dropped, and the interface stays closed for two cycles.
bool SOCKET_INTERFACE::KeepListener(FILE_DESCRIPTOR listener, int reopenCounter) {
  MUTEX_GUARD guard(&socketLock_);
  if (reopenCounter_ != reopenCounter) return false;
  listener_ = std::move(listener);
  descriptor.state = InterfaceState::Listening;
  if (ending_) ShutDownSockets();
  return true;
}

void SOCKET_INTERFACE::KeepClient(FILE_DESCRIPTOR client) {
  MUTEX_GUARD guard(&socketLock_);
  client_ = std::move(client);
  if (ending_) ShutDownSockets();
}

// The callers of the following functions hold the socket lock.

void SOCKET_INTERFACE::SetClosed() {
  reopenCounter_ = 0;
  descriptor.state = InterfaceState::Closed;
}

void SOCKET_INTERFACE::ShutDownSockets() {
  if (client_.IsOpen()) shutdown(client_.Number(), SHUT_RDWR);
  if (listener_.IsOpen()) shutdown(listener_.Number(), SHUT_RDWR);
}

void SOCKET_INTERFACE::CloseSockets() {
  client_.Close();
  listener_.Close();
}

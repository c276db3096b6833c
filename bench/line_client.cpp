#include "line_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>

#include "clock.h"

namespace bench {

LINE_CLIENT::LINE_CLIENT(int port, const std::string& endOfGreeting) {
  Connect(port);
  if (WaitFor(endOfGreeting) == 0) throw std::runtime_error("no greeting from the daemon");
}

LINE_CLIENT::~LINE_CLIENT() { close(socket_); }

void LINE_CLIENT::Connect(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const sockaddr* const generic = reinterpret_cast<const sockaddr*>(&address);
  for (int tries = 0; tries < 1000; ++tries) {
    socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(socket_, generic, sizeof address) == 0) {
      const int on = 1;
      const timeval limit = {5, 0};
      setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      return;
    }
    close(socket_);
    SleepFor(20 * kMillisecond);
  }
  throw std::runtime_error("cannot connect to port " + std::to_string(port));
}

void LINE_CLIENT::Send(const std::string& text) {
  if (send(socket_, text.data(), text.size(), MSG_NOSIGNAL) < 0) {
    throw std::runtime_error("the daemon has closed the connection");
  }
}

std::int64_t LINE_CLIENT::WaitFor(const std::string& text) {
  for (;;) {
    char bytes[512];
    const ssize_t count = recv(socket_, bytes, sizeof bytes, 0);
    const std::int64_t now = Now();
    if (count == 0) throw std::runtime_error("the daemon has closed the connection");
    if (count < 0) return 0;
    received_.append(bytes, static_cast<std::size_t>(count));
    const std::size_t at = received_.find(text);
    if (at == std::string::npos) continue;
    received_.erase(0, at + text.size());
    return now;
  }
}

}  // namespace bench

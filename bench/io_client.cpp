#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>

#include "client.h"
#include "timing.h"

namespace bench {

namespace {

class IO_CLIENT : public CLIENT {
 public:
  explicit IO_CLIENT(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    const timeval limit = {5, 0};
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect to port " + std::to_string(port));
    }
  }

  ~IO_CLIENT() override { close(socket_); }

  void Send(const std::string& line) override {
    const std::string bytes = line + "\r\n";
    if (send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
      throw std::runtime_error("the daemon has closed the connection");
    }
  }

  LINE Next() override {
    const std::string end = "\r\n\r";
    std::size_t size = 0;
    while ((size = received_.find(end)) == std::string::npos) {
      char bytes[512];
      const ssize_t count = recv(socket_, bytes, sizeof bytes, 0);
      if (count == 0) throw std::runtime_error("the daemon has closed the connection");
      if (count < 0) return {"", 0};
      received_.append(bytes, static_cast<std::size_t>(count));
    }
    LINE line = {received_.substr(0, size), Now()};
    received_.erase(0, size + end.size());
    return line;
  }

 private:
  const int socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string received_;
};

}  // namespace

std::unique_ptr<CLIENT> Connect(int port) {
  auto client = std::make_unique<IO_CLIENT>(port);
  if (client->WaitFor("TALP IO interface is ready") == 0) {
    throw std::runtime_error("no greeting from the daemon");
  }
  return client;
}

}  // namespace bench

#include "net/socket_interface.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "support.h"

namespace {

constexpr char kBanner[] = "TALP IO interface is ready\r\n\r";

// A socket with any address of the loopback interface.
class LOOPBACK_SOCKET {
 public:
  LOOPBACK_SOCKET() {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, bind(socket_, Generic(&address_), sizeof address_));
    socklen_t size = sizeof address_;
    getsockname(socket_, Generic(&address_), &size);
  }
  ~LOOPBACK_SOCKET() { close(socket_); }
  LOOPBACK_SOCKET(const LOOPBACK_SOCKET&) = delete;
  LOOPBACK_SOCKET& operator=(const LOOPBACK_SOCKET&) = delete;

  int WirePort() const { return address_.sin_port; }

 protected:
  static sockaddr* Generic(sockaddr_in* address) { return reinterpret_cast<sockaddr*>(address); }
  const int socket_ = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address_{};
};

class CLIENT : public LOOPBACK_SOCKET {
 public:
  explicit CLIENT(int port) {
    const int small = 4096;
    setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const timeval patience = {40, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in server = address_;
    server.sin_port = htons(static_cast<std::uint16_t>(port));
    EXPECT_TRUE(ComesTrue([&] { return connect(socket_, Generic(&server), sizeof server) == 0; }));
  }

  std::string Read(std::size_t count) {
    std::string bytes(count, '\0');
    const ssize_t received = recv(socket_, bytes.data(), count, MSG_WAITALL);
    bytes.resize(received < 0 ? 0 : static_cast<std::size_t>(received));
    return bytes;
  }

  void Send(const std::string& bytes) { send(socket_, bytes.data(), bytes.size(), 0); }
};

// An IO interface on a port of its own; whole seconds are no pause.
class SocketInterface : public testing::Test {
 protected:
  SocketInterface() {
    settings_.port = ntohs(static_cast<std::uint16_t>(LOOPBACK_SOCKET().WirePort()));
    settings_.name = "IO";
    settings_.delay = 100;
    logger_.fileName = directory_.Path("log");
  }

  bool Create() {
    interface_ = std::make_unique<SOCKET_INTERFACE>(settings_, logger_, &input_, Text);
    return interface_->Init();
  }

  bool Reaches(InterfaceState state) {
    return ComesTrue([&] { return interface_->descriptor.state == state; });
  }

  void AwaitAccept() {
    ASSERT_TRUE(Create() && Reaches(Accepting));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }

  void ExpectMessage(const std::string& message) {
    ASSERT_TRUE(ComesTrue([this] { return !input_.IsEmpty(); }));
    EXPECT_EQ(message, TextOf(input_.DeQueue()));
  }

  // Queues messages for a client that does not read until one is not taken any more: the task is
  // blocked in writing the one before.
  void BlockInWriting() {
    int waited = 0;
    for (int i = 0; waited < 300 && i < 200; ++i) {
      interface_->outputQueue.ToQueue(BYTE_LIST(200000, 'x'));
      for (waited = 0; waited < 300 && !interface_->outputQueue.IsEmpty(); ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    EXPECT_EQ(300, waited);
  }

  bool Logged(const std::string& text) {
    return ReadFile(logger_.fileName).find(text + "\n") != std::string::npos;
  }

  const TEMP_DIR directory_;
  const STUBBED_COMMAND sleep_{"sleep", "exit 0"};
  INTERFACE_DESCRIPTOR settings_;
  LOGGER logger_;
  TLQUEUE input_;
  std::unique_ptr<SOCKET_INTERFACE> interface_;
};

TEST_F(SocketInterface, ServesOneClientAfterTheOther) {
  ASSERT_TRUE(Create());
  for (int round = 0; round < 2; ++round) {
    // One that came before the interface listens again would be turned away.
    ASSERT_TRUE(Reaches(Accepting));
    CLIENT client(settings_.port);
    EXPECT_EQ(kBanner, client.Read(sizeof kBanner - 1));
    client.Send("a5b1dFB\r\na5b1dFF\r\n");
    ExpectMessage("a5b1dFB\r\na5b1dFF\r\n");
    client.Send(std::string(300, 'x'));
    ExpectMessage(std::string(255, 'x'));
    ExpectMessage(std::string(45, 'x'));
    interface_->outputQueue.ToQueue(BYTE_LIST(200000, 'y'));
    EXPECT_EQ(std::string(200000, 'y') + "\r", client.Read(200001));
    // The port is logged as it stands on the wire.
    EXPECT_TRUE(Logged("[INF] client is connected on IO interface from 127.0.0.1:" +
                       std::to_string(client.WirePort())));
  }
  EXPECT_TRUE(
      ComesTrue([this] { return Logged("[INF] connection is closed by client on IO interface"); }));
  EXPECT_TRUE(Logged("[INF] IO interface is waiting for incoming connection"));
}

TEST_F(SocketInterface, CloseByCommandEndsABlockedWrite) {
  ASSERT_TRUE(Create());
  {
    CLIENT deaf(settings_.port);
    ASSERT_TRUE(Reaches(Connected));
    BlockInWriting();
    interface_->CloseByCommand();
    EXPECT_TRUE(Reaches(Accepting));
  }
  // What was left comes before the banner.
  CLIENT client(settings_.port);
  EXPECT_EQ(std::string(200000, 'x') + "\r" + kBanner, client.Read(200001 + sizeof kBanner - 1));
  EXPECT_TRUE(Logged("[INF] connection is closed by command on IO interface"));
  EXPECT_FALSE(Logged("[INF] connection is closed by client on IO interface"));
}

TEST_F(SocketInterface, CloseByCommandEndsTheWaitForAClient) {
  AwaitAccept();
  interface_->CloseByCommand();
  interface_->outputQueue.ToQueue(ListOf("kept "));
  ASSERT_TRUE(Reaches(Closed) && Reaches(Accepting));
  // What was queued is not lost, and the greeting comes once.
  EXPECT_EQ("kept \r" + std::string(kBanner), CLIENT(settings_.port).Read(6 + sizeof kBanner - 1));
  EXPECT_FALSE(Logged("[ERR] socket accept error on IO interface"));
}

TEST_F(SocketInterface, EndsWhereverItIsBlocked) {
  const std::ptrdiff_t descriptors = OpenDescriptors();
  AwaitAccept();
  interface_.reset();
  ASSERT_TRUE(Create());
  {
    CLIENT deaf(settings_.port);
    ASSERT_TRUE(Reaches(Connected));
    BlockInWriting();
    interface_.reset();
  }
  // Without a port it never listens.
  settings_.port = 0;
  EXPECT_FALSE(Create());
  EXPECT_EQ(Idle, interface_->descriptor.state);
  EXPECT_TRUE(Logged("[ERR] IO interface listening error on port 0"));
  settings_.name = "DMI";
  Create();
  EXPECT_TRUE(ComesTrue([this] { return Logged("[INF] On task DMI interface"); }));
  interface_.reset();
  EXPECT_EQ(descriptors, OpenDescriptors());
}

}  // namespace

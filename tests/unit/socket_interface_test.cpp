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

void Pause(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

sockaddr_in NameOf(int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return address;
}

// A bound socket, which keeps its port from others until it is closed.
int BoundSocket() {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = Loopback(0);
  EXPECT_EQ(0, bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  return socket;
}

class CLIENT {
 public:
  explicit CLIENT(int port) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    const int small = 4096;
    setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const timeval patience = {40, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const sockaddr_in address = Loopback(port);
    EXPECT_TRUE(ComesTrue([&] {
      return connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }));
  }
  ~CLIENT() { close(socket_); }

  std::string Read(std::size_t count) {
    std::string bytes(count, '\0');
    const ssize_t received = recv(socket_, bytes.data(), count, MSG_WAITALL);
    bytes.resize(received < 0 ? 0 : static_cast<std::size_t>(received));
    return bytes;
  }

  void Send(const std::string& bytes) { send(socket_, bytes.data(), bytes.size(), 0); }

  int WirePort() const { return NameOf(socket_).sin_port; }

 private:
  const int socket_;
};

// An IO interface on a port of its own; whole seconds are no pause.
class SocketInterface : public testing::Test {
 protected:
  SocketInterface() {
    const int socket = BoundSocket();
    settings_.port = ntohs(NameOf(socket).sin_port);
    close(socket);
    settings_.name = "IO";
    settings_.delay = 100;
    logger_.fileName = directory_.Path("log");
  }

  void Create() {
    interface_ = std::make_unique<SOCKET_INTERFACE>(settings_, logger_, &input_, Text);
  }

  bool Reaches(InterfaceState state) {
    return ComesTrue([&] { return interface_->descriptor.state == state; });
  }

  void ExpectMessage(const std::string& message) {
    ASSERT_TRUE(ComesTrue([this] { return !input_.IsEmpty(); }));
    EXPECT_EQ(message, TextOf(input_.DeQueue()));
  }

  // Queues messages for a client that does not read until one is not taken any more: the task is
  // blocked in writing the one before.
  void BlockInWriting() {
    const BYTE_LIST message(200000, 'x');
    bool taken = true;
    for (int i = 0; taken && i < 200; ++i) {
      interface_->outputQueue.ToQueue(message);
      for (int wait = 0; wait < 300 && !interface_->outputQueue.IsEmpty(); ++wait) Pause(1);
      taken = interface_->outputQueue.IsEmpty();
    }
    EXPECT_FALSE(taken);
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
  Create();
  ASSERT_TRUE(interface_->Init());
  for (int round = 0; round < 2; ++round) {
    // One that came before the interface listens again would be turned away.
    ASSERT_TRUE(Reaches(Accepting));
    CLIENT client(settings_.port);
    EXPECT_EQ(kBanner, client.Read(sizeof kBanner - 1));
    ASSERT_TRUE(Reaches(Connected));
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
  Create();
  ASSERT_TRUE(interface_->Init());
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
  Create();
  ASSERT_TRUE(interface_->Init());
  ASSERT_TRUE(Reaches(Accepting));
  Pause(20);  // on to the accept
  interface_->CloseByCommand();
  interface_->outputQueue.ToQueue(ListOf("kept "));
  ASSERT_TRUE(Reaches(Closed));
  ASSERT_TRUE(Reaches(Accepting));
  // What was queued is not lost, and the greeting comes once.
  EXPECT_EQ("kept \r" + std::string(kBanner), CLIENT(settings_.port).Read(6 + sizeof kBanner - 1));
  EXPECT_FALSE(Logged("[ERR] socket accept error on IO interface"));
}

TEST_F(SocketInterface, EndsWhereverItIsBlocked) {
  const std::ptrdiff_t descriptors = OpenDescriptors();
  Create();
  interface_.reset();  // never listened
  Create();
  ASSERT_TRUE(interface_->Init());
  ASSERT_TRUE(Reaches(Accepting));
  Pause(20);  // on to the accept
  interface_.reset();
  Create();
  ASSERT_TRUE(interface_->Init());
  {
    CLIENT deaf(settings_.port);
    ASSERT_TRUE(Reaches(Connected));
    BlockInWriting();
    interface_.reset();
  }
  settings_.name = "DMI";
  Create();
  EXPECT_TRUE(ComesTrue([this] { return Logged("[INF] On task DMI interface"); }));
  interface_.reset();
  EXPECT_EQ(descriptors, OpenDescriptors());
}

TEST_F(SocketInterface, NoPort) {
  settings_.port = 0;
  Create();
  EXPECT_FALSE(interface_->Init());
  EXPECT_EQ(Idle, interface_->descriptor.state);
  EXPECT_TRUE(Logged("[ERR] IO interface listening error on port 0"));
}

TEST_F(SocketInterface, TakenPort) {
  const int socket = BoundSocket();
  settings_.port = ntohs(NameOf(socket).sin_port);
  Create();
  EXPECT_TRUE(interface_->Init());
  EXPECT_TRUE(Logged("[ERR] couldn't bind socket forIO interface"));
  EXPECT_TRUE(Logged("[INF] IO interface listening on port " + std::to_string(settings_.port)));
  interface_->mf_SIGhandler(15);
  EXPECT_TRUE(Logged("[INF] signal 15 on IO interface"));
  interface_.reset();
  close(socket);
}

}  // namespace

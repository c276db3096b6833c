#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "calls.h"
#include "core/file_descriptor.h"
#include "net/io_command.h"
#include "net/socket_interface.h"
#include "support.h"

namespace {

// The rows build on each other: a block frame carries what was stored before.
constexpr CASE kIoCommands[] = {
    {"a5b1dFB", "5: 10 05 02 FF FB"},
    {"a5bFd22", "5: 10 05 02 FF FB"},
    {"a5b0dfb", "5: 10 05 02 00 FB"},
    {"a5bgd7", "5: 10 05 02 70 FB"},
    {"a5b1dA5 and more", "5: 10 05 02 70 A5"},
    {"a0b4d90", "0: 10 00 06 80 80 80 80 90 80"},
    {"axb5d\xE1", "0: 10 00 06 80 80 80 80 90 00"},
    {"a6b3d7F", "6: 10 06 04 00 00 00 7F"},
    {"a3b0d40", "3: "},  // stored, but in no frame
    {"a9b0d40", "9: "},
    {"aEb0d40", "14: "},

    {"a9sHS434F434B524F414348", "9: 10 09 0A 09 43 4F 43 4B 52 4F 41 43 48"},
    {"a9sHS", "9: 10 09 01 00"},
    {"a9s41HS", "illegal"},
    {"aEsHS41", "illegal"},

    {"aElBF and more", "14: 10 0E 01 06"},
    {"aElPAp0301tTail", "14: 10 0E 08 09 03 01 54 61 69 6C 00"},
    {"aElCLxxPAp", "14: 10 0E 04 09 00 A0 00"},
    {"aElcl", "illegal"},

    {"a5b1", "illegal"},
    {"a5x1dFF", "illegal"},
};

TEST(IoCommand, Requests) {
  PERIFCARD cards[kAddressCount];
  // 0 servo, 3 digital input, 5 digital output, 6 motor, 9 infrared, E LCD
  ApplyDiscoveryAnswer(FromHex("31 05 00 00 04 00 03 06 00 00 0A 00 00 00 00 09 00"), cards);
  const auto request = [&cards](const std::string& command) -> std::string {
    const IO_REQUEST asked = ParseIoCommand(command, cards);
    if (!asked.legal) return "illegal";
    return std::to_string(asked.address) + ": " + ToHex(asked.payload);
  };
  ExpectCases(request, kIoCommands);
  EXPECT_EQ("70 A5 00 00 00 00 00 00 00 00 00 00 00 00 00 22", ToHex(cards[5].blockState));
  int code = 0;
  for (const std::string control : {"CL", "LO", "LF", "CO", "CF", "BO", "BF"}) {
    EXPECT_EQ("14: 10 0E 01 0" + std::to_string(code++), request("aEl" + control));
  }
  // At most 31 characters of text.
  EXPECT_EQ(38U, ParseIoCommand("aElPAp0000t" + std::string(31, 'x'), cards).payload.size());
  EXPECT_EQ("illegal", request("aElPAp0000t" + std::string(32, 'x')));
}

// A socket with an address of its own on the loopback interface.
class CLIENT {
 public:
  CLIENT() {
    EXPECT_EQ(0, bind(socket_.Number(), Generic(&address_), sizeof address_));
    socklen_t size = sizeof address_;
    getsockname(socket_.Number(), Generic(&address_), &size);
  }
  explicit CLIENT(int port) : CLIENT() {
    sockaddr_in server = address_;
    server.sin_port = htons(static_cast<std::uint16_t>(port));
    EXPECT_TRUE(
        ComesTrue([&] { return connect(socket_.Number(), Generic(&server), sizeof server) == 0; }));
  }

  int WirePort() const { return address_.sin_port; }

  void Send(const std::string& bytes) { send(socket_.Number(), bytes.data(), bytes.size(), 0); }

  void Expect(const std::string& bytes) {
    std::string received(bytes.size(), '\0');
    recv(socket_.Number(), received.data(), received.size(), MSG_WAITALL);
    EXPECT_EQ(bytes, received);
  }

 private:
  static sockaddr* Generic(sockaddr_in* address) { return reinterpret_cast<sockaddr*>(address); }
  const FILE_DESCRIPTOR socket_{::socket(AF_INET, SOCK_STREAM, 0)};
  sockaddr_in address_{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
};

// An interface on a port of its own. Whole seconds are no pause, but are noted.
class SocketInterface : public testing::Test {
 protected:
  SocketInterface() {
    settings_.port = ntohs(static_cast<std::uint16_t>(CLIENT().WirePort()));
    settings_.name = "IO";
    settings_.delay = 100;
    logger_.fileName = directory_.Path("log");
  }

  bool Logged(const std::string& text) {
    return ReadFile(logger_.fileName).find("] " + text + "\n") != std::string::npos;
  }

  const TEMP_DIR directory_;
  const std::string pauses_ = directory_.Path("pauses");
  const STUBBED_SLEEP sleep_{"echo $1 >>" + pauses_};
  INTERFACE_DESCRIPTOR settings_;
  LOGGER logger_;
  TLQUEUE input_;
};

TEST_F(SocketInterface, CloseByCommandEndsWhatItIsBlockedIn) {
  SOCKET_INTERFACE interface(settings_, logger_, &input_, FramingMode::Text);
  ASSERT_TRUE(interface.Init());
  const auto accepts = [&] { return interface.descriptor.state == InterfaceState::Accepting; };
  {
    CLIENT deaf(settings_.port);
    // The port is logged as it stands on the wire.
    const std::string peer = "127.0.0.1:" + std::to_string(deaf.WirePort());
    EXPECT_TRUE(
        ComesTrue([&] { return Logged("client is connected on IO interface from " + peer); }));
    deaf.Send(std::string(300, 'x'));
    for (const std::size_t size : {255, 45}) {
      ASSERT_TRUE(ComesTrue([this] { return !input_.IsEmpty(); }));
      EXPECT_EQ(std::string(size, 'x'), TextOf(input_.DeQueue()));
    }
    // The task is blocked in writing when it does not take the next message any more.
    const auto taken = [&] { return interface.outputQueue.IsEmpty(); };
    do {
      interface.outputQueue.ToQueue(BYTE_LIST(200000, 'x'));
    } while (ComesTrue(taken, 300));
    interface.CloseByCommand();
    ASSERT_TRUE(ComesTrue(accepts));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // it waits for a client now
  // A second close comes while the listener is being opened again.
  // cppcheck-suppress danglingLifetime; it is called once, below
  whileOpening = [&interface] { interface.CloseByCommand(); };
  interface.CloseByCommand();
  // Before each accept, and in the two cycles after each close.
  const auto paused = [&] { return ReadFile(pauses_) == "3\n2\n2\n3\n2\n2\n2\n2\n3\n"; };
  ASSERT_TRUE(ComesTrue(paused)) << ReadFile(pauses_);
  // What was left comes before the banner, which comes once.
  CLIENT client(settings_.port);
  client.Expect(std::string(200000, 'x') + "\rTALP IO interface is ready\r\n\r");
  EXPECT_TRUE(Logged("connection is closed by command on IO interface"));
  EXPECT_FALSE(Logged("connection is closed by client on IO interface"));
  EXPECT_FALSE(Logged("socket accept error on IO interface"));
}

TEST_F(SocketInterface, WhatIsQueuedWhenAClientLeavesGoesToTheNext) {
  SOCKET_INTERFACE interface(settings_, logger_, &input_, FramingMode::Text);
  ASSERT_TRUE(interface.Init());
  const std::string banner = "TALP IO interface is ready\r\n\r";
  const auto accepts = [&] { return interface.descriptor.state == InterfaceState::Accepting; };
  const auto queue = [&interface](const char* text) {
    interface.outputQueue.ToQueue(Convert_String2QList(text));
  };
  {
    CLIENT leaves(settings_.port);
    leaves.Expect(banner);
    // cppcheck-suppress danglingLifetime; it is called once, by the end of the client
    whileReading = [&] { queue("lost"), queue("kept"); };
  }
  ASSERT_TRUE(ComesTrue(accepts));
  {
    CLIENT closed(settings_.port);
    closed.Expect("kept\r" + banner);
    EXPECT_TRUE(Logged("socket write error on IO interface"));
    // A close by command while it reads: what the master queues behind it is for the next.
    // cppcheck-suppress danglingLifetime; it is called once, by what is sent
    whileReading = [&] { interface.CloseByCommand(), queue("next"); };
    closed.Send("x");
    ASSERT_TRUE(ComesTrue([] { return whileReading.IsDone(); }) && ComesTrue(accepts));
  }
  // A close between the end of the wait for a client and its greeting.
  // cppcheck-suppress danglingLifetime; it is called once, by the line that a client is connected
  whileLogging = [&] { interface.CloseByCommand(); };
  { CLIENT ungreeted(settings_.port); }
  ASSERT_TRUE(ComesTrue([] { return whileLogging.IsDone(); }) && ComesTrue(accepts));
  CLIENT client(settings_.port);
  client.Expect("next\r" + banner);
  client.Send("x");  // greeted once: nothing comes before the answer
  ASSERT_TRUE(ComesTrue([this] { return TextOf(input_.DeQueue()) == "x"; }));
  queue("answer");
  client.Expect("answer\r");
}

TEST_F(SocketInterface, WithoutAPortItNeverListens) {
  settings_.port = 0;
  settings_.name = "DMI";  // one of this name is not served
  EXPECT_FALSE(SOCKET_INTERFACE(settings_, logger_, &input_, FramingMode::Text).Init());
  EXPECT_TRUE(Logged("DMI interface listening error on port 0"));
}

}  // namespace

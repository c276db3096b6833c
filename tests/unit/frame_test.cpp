#include "bus/frame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "support.h"

namespace {

constexpr char kTimeout[] = "54 4D 45";

TEST(Frame, Requests) {
  const auto wire = [](const BYTE_LIST& request) {
    const REQUEST_FRAME frame = BuildRequestFrame(request);
    return std::string(frame.bytes.data(), frame.size);
  };
  EXPECT_EQ("03 40 6F 9A", ToHex(wire(HandshakeRequest())));
  EXPECT_EQ("01 30", ToHex(wire(DiscoveryRequest())));
  EXPECT_EQ("\xFF" + std::string(255, 'x'), wire(BYTE_LIST(255, 'x')));
  EXPECT_EQ("\xFF" + std::string(255, 'x'), wire(BYTE_LIST(300, 'x')));
  EXPECT_EQ("4C 43 45", ToHex(EmptyRequestReply()));
}

// Gives the pieces, parted by '/', one a read, and then nothing more.
std::string ReplyTo(const BYTE_LIST& request, const std::string& pieces) {
  REPLY_WAIT wait(request);
  std::istringstream stream(pieces);
  for (std::string piece; wait.Waiting() && std::getline(stream, piece, '/');) {
    const std::string bytes = FromHex<std::string>(piece);
    wait.Attempt(bytes.data(), static_cast<long>(bytes.size()));
  }
  while (wait.Waiting()) wait.Attempt(nullptr, -1);
  return ToHex(wait.Reply());
}

TEST(Frame, Replies) {
  EXPECT_EQ("41 42", ReplyTo({' '}, "02 41 42"));
  EXPECT_EQ("41 42", ReplyTo({' '}, "02/41//42"));
  EXPECT_EQ("41 42", ReplyTo({' '}, "02 41 42 43 44"));
  EXPECT_EQ("41 42", ReplyTo({' '}, "02 41/42 43/44"));
  EXPECT_EQ("", ReplyTo({' '}, "/00 41"));
  for (const char* incomplete : {"", "02 41", "FF 41", "84"}) {
    EXPECT_EQ(kTimeout, ReplyTo({' '}, incomplete)) << incomplete;
  }
}

TEST(Frame, RepliesOfEveryLength) {
  for (std::size_t promised = 0; promised <= 255; ++promised) {
    const std::string bytes = static_cast<char>(promised) + std::string(400, 'r');
    const std::string expected =
        promised <= 131 ? ToHex(std::string(promised, 'r')) : std::string(kTimeout);
    for (const std::size_t size : {std::size_t{255}, std::size_t{7}}) {
      REPLY_WAIT wait({' '});
      for (std::size_t at = 0; wait.Waiting() && at < bytes.size(); at += size) {
        wait.Attempt(&bytes[at], static_cast<long>(std::min(size, bytes.size() - at)));
      }
      EXPECT_EQ(promised > 131, wait.Waiting()) << promised;
      EXPECT_EQ(expected, ToHex(wait.Reply())) << promised;
    }
  }
}

TEST(Frame, AttemptBudgets) {
  for (const char command : {'0', '@', ' ', 'P', '\xB0'}) {
    const int budget = command == '0' || command == '@' ? 300000 : 150000;
    // A reply that comes with the last permitted attempt comes too late.
    for (const int last : {budget - 1, budget}) {
      REPLY_WAIT wait({command});
      for (int i = 1; i < last; ++i) wait.Attempt(nullptr, 0);
      EXPECT_TRUE(wait.Waiting());
      wait.Attempt("\1A", 2);
      EXPECT_FALSE(wait.Waiting());
      EXPECT_EQ(last < budget ? "41" : kTimeout, ToHex(wait.Reply())) << command;
    }
  }
}

TEST(Frame, HandshakeVersions) {
  EXPECT_EQ("1.20", HandshakeVersion(FromHex("40 31 2E 32 30 78 79")));
  EXPECT_EQ("1", HandshakeVersion(FromHex("40 31")));
  EXPECT_EQ("1", HandshakeVersion(FromHex("40 31 00 32 30")));
  for (const char* reply : {"", "40", "00 31 32"}) EXPECT_EQ("", HandshakeVersion(FromHex(reply)));
}

}  // namespace

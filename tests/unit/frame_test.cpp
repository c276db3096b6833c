#include "bus/frame.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// Gives the pieces, one a read, and then nothing more.
std::string ReplyTo(const std::vector<std::string>& pieces) {
  REPLY_WAIT wait({' '});
  for (const std::string& bytes : pieces) {
    if (wait.Waiting()) wait.Attempt(bytes.data(), static_cast<long>(bytes.size()));
  }
  while (wait.Waiting()) wait.Attempt(nullptr, -1);
  return ToHex(wait.Reply());
}

TEST(Frame, Replies) {
  EXPECT_EQ("41 42", ReplyTo({"\2AB"}));
  EXPECT_EQ("41 42", ReplyTo({"\2", "A", "", "B"}));
  EXPECT_EQ("41 42", ReplyTo({"\2ABCD"}));
  EXPECT_EQ("41 42", ReplyTo({"\2A", "BC", "D"}));
  EXPECT_EQ("", ReplyTo({"", std::string("\0A", 2)}));
  for (const char* incomplete : {"", "\2A", "\xFFZ", "\x84"}) {
    EXPECT_EQ(kTimeout, ReplyTo({incomplete})) << incomplete;
  }
}

TEST(Frame, RepliesOfEveryLength) {
  for (std::size_t promised = 0; promised <= 255; ++promised) {
    const std::string whole = static_cast<char>(promised) + std::string(400, 'r');
    const std::string expected =
        promised <= 131 ? ToHex(std::string(promised, 'r')) : std::string(kTimeout);
    EXPECT_EQ(expected, ReplyTo({whole.substr(0, 255), whole.substr(255)})) << promised;
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at < whole.size(); at += 7) pieces.push_back(whole.substr(at, 7));
    EXPECT_EQ(expected, ReplyTo(pieces)) << promised;
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

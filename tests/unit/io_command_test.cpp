#include "net/io_command.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support.h"

namespace {

TEST(IoCommand, Split) {
  using LIST = std::vector<std::string>;
  EXPECT_EQ((LIST{"a", "b"}), SplitCommands("a\r\nb\r\n", "\r\n"));
  EXPECT_EQ((LIST{"a", "b"}), SplitCommands("\r\n\r\na\r\n\r\nb", "\r\n"));
  EXPECT_EQ((LIST{"a\rb\nc", "\r"}), SplitCommands("a\rb\nc\r\n\r", "\r\n"));
  EXPECT_EQ((LIST{"a", "b"}), SplitCommands(";;a;b;", ";"));
  EXPECT_EQ((LIST{"a;b"}), SplitCommands("a;b", ""));
  EXPECT_EQ((LIST{"a"}), SplitCommands("a", "longer than it"));
  EXPECT_EQ(LIST{}, SplitCommands("", ";"));
}

TEST(IoCommand, Requests) {
  PERIFCARD cards[kAddressCount];
  ApplyDiscoveryAnswer(FromHex<REPLY>("31 05 00 00 04 00 03 06 00 00 0A 00 00 00 00 09 07"), cards);
  ExpectCases("io_commands.txt", [&](const std::string& command) -> std::string {
    if (command[0] == '!') return ToHex(cards[command.back() - '0'].blockState);
    const IO_REQUEST request = ParseIoCommand(command, cards);
    if (!request.legal) return "illegal";
    const std::string payload = request.payload.empty() ? "none" : ToHex(request.payload);
    return std::to_string(request.address) + ": " + payload;
  });
}

}  // namespace

#include "net/client_framing.h"

#include <gtest/gtest.h>

#include <string>

#include "support.h"

namespace {

std::string Decoded(FramingMode mode, const char* hex) {
  const std::string bytes = FromHex<std::string>(hex);
  return ToHex(DecodeInbound(mode, bytes.data(), bytes.size()));
}

TEST(ClientFraming, Inbound) {
  EXPECT_EQ("61 0D 0A", Decoded(Text, "61 0D 0A"));
  EXPECT_EQ("61 FF", Decoded(Text, "61 FF 00 62"));
  EXPECT_EQ("", Decoded(Text, "00 62"));
  EXPECT_EQ("61 00", Decoded(LengthPrefixed, "02 61 00 63"));
  EXPECT_EQ("", Decoded(LengthPrefixed, "00 61"));
  EXPECT_EQ("61", Decoded(LengthPrefixed, "FF 61"));
  EXPECT_EQ("", Decoded(LengthPrefixed, "80"));
}

TEST(ClientFraming, Outbound) {
  EXPECT_EQ("61 00 FF 0D", ToHex(EncodeOutbound(Text, FromHex("61 00 FF"))));
  EXPECT_EQ("0D", ToHex(EncodeOutbound(Text, {})));
  EXPECT_EQ("03 61 00 FF", ToHex(EncodeOutbound(LengthPrefixed, FromHex("61 00 FF"))));
  EXPECT_EQ("," + std::string(300, 'x'), EncodeOutbound(LengthPrefixed, BYTE_LIST(300, 'x')));
}

}  // namespace

#include "master/perifcard.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "support.h"

namespace {

REPLY DiscoveryOf(int address, const std::string& code) {
  REPLY answer(1 + kAddressCount);
  answer[0] = '1';
  answer[1 + static_cast<std::size_t>(address)] = FromHex<REPLY>(code)[0];
  return answer;
}

TEST(PerifCard, Discovery) {
  ExpectCases("discovery.txt", [](const std::string& code) {
    PERIFCARD cards[kAddressCount];
    ApplyDiscoveryAnswer(DiscoveryOf(15, code), cards);
    const PERIFCARD& card = cards[15];
    EXPECT_EQ(code, ToHex(REPLY(1, static_cast<char>(card.kindCode))));
    std::ostringstream told;
    told << card.name << "|" << card.cardClass << "|" << card.blockCount << "|"
         << int{card.pollEnabled} << "|" << ToHex(card.pollFrame) << "|"
         << ToHex(card.blockState).substr(0, 17);
    return told.str();
  });
}

TEST(PerifCard, DiscoveryWithoutClearing) {
  PERIFCARD cards[kAddressCount];
  ApplyDiscoveryAnswer(DiscoveryOf(2, "04"), cards);
  cards[2].pollEnabled = 0;
  ApplyDiscoveryAnswer(REPLY(kAddressCount, '1'), cards);  // a kind too few
  EXPECT_EQ("20 02 02", ToHex(cards[2].pollFrame));
  ApplyDiscoveryAnswer(DiscoveryOf(2, "04"), cards);
  ApplyDiscoveryAnswer(DiscoveryOf(2, "03"), cards);
  EXPECT_EQ(1, cards[2].pollEnabled);
  EXPECT_EQ("20 02 02 20 02 02", ToHex(cards[2].pollFrame));
  // What one frame can carry is never exceeded.
  for (int i = 0; i < 100; ++i) ApplyDiscoveryAnswer(DiscoveryOf(2, "04"), cards);
  EXPECT_EQ(255U, cards[2].pollFrame.size());
}

TEST(PerifCard, DirectAnswers) {
  PERIFCARD card;
  ApplyDirectAnswer(FromHex<REPLY>("51 05 40 A7 04 05 06 07 08 09 0A 0B 0C 0D 0E FF 11"), &card);
  EXPECT_EQ("51 05 40 A7 04 05 06 07 08 09 0A 0B 0C 0D 0E FF", ToHex(card.pioAnswer));
  ApplyDirectAnswer(FromHex<REPLY>("51 05 01"), &card);
  EXPECT_EQ("51 05 01 00 00 00 00 00 00 00 00 00 00 00 00 00", ToHex(card.pioAnswer));
  card.ClearPIOAnswer();
  EXPECT_FALSE(card.HasDirectAnswer());
  EXPECT_EQ(15, AnswerAddress(FromHex<REPLY>("51 0F")));
  for (const char* answer : {"", "51", "51 10", "51 FF"}) {
    EXPECT_EQ(-1, AnswerAddress(FromHex<REPLY>(answer))) << answer;
  }
}

TEST(PerifCard, Inputs) {
  PERIFCARD card;
  ExpectCases("inputs.txt", [&card](const std::string& input) -> std::string {
    if (input[0] == '!') {
      if (input[1] == 'c') card.clearPerifCard();
      card.kindCode = static_cast<unsigned char>(input.back() - '0');
      return "";
    }
    const bool changed = ApplyInputAnswer(FromHex<REPLY>(input), &card);
    std::string told;
    for (const std::string& line : ChangedInputLines(10, card)) told += line + " ";
    return told + (changed ? "changed" : "");
  });
}

}  // namespace

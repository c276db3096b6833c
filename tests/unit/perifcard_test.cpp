#include "master/perifcard.h"

#include <gtest/gtest.h>

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
    EXPECT_EQ(FromHex<REPLY>(code)[0], card.kindCode);
    EXPECT_EQ(15, card.address);
    return std::string(card.name) + "|" + std::to_string(card.cardClass) + "|" +
           std::to_string(card.blockCount) + "|" + std::to_string(card.pollEnabled) + "|" +
           ToHex(card.pollFrame) + "|" + ToHex(card.blockState).substr(0, 17);
  });
}

TEST(PerifCard, DiscoveryWithoutClearing) {
  PERIFCARD cards[kAddressCount];
  ApplyDiscoveryAnswer(DiscoveryOf(2, "04"), cards);
  cards[2].pollEnabled = 0;
  ApplyDiscoveryAnswer(REPLY(kAddressCount, '1'), cards);  // a kind too few
  EXPECT_EQ("20 02 02", ToHex(cards[2].pollFrame));
  ApplyDiscoveryAnswer(DiscoveryOf(2, "04"), cards);
  EXPECT_EQ(1, cards[2].pollEnabled);
  ApplyDiscoveryAnswer(DiscoveryOf(2, "03"), cards);
  EXPECT_EQ(1, cards[2].pollEnabled);
  EXPECT_EQ("20 02 02 20 02 02", ToHex(cards[2].pollFrame));
  // What one frame can carry is never exceeded.
  for (int i = 0; i < 100; ++i) ApplyDiscoveryAnswer(DiscoveryOf(2, "04"), cards);
  EXPECT_EQ(255U, cards[2].pollFrame.size());
}

TEST(PerifCard, ClearLeavesAddressAnswerAndSampleCount) {
  PERIFCARD cards[kAddressCount];
  ApplyDiscoveryAnswer(DiscoveryOf(5, "07"), cards);
  PERIFCARD& card = cards[5];
  card.blockState[0] = card.changeFlag[0] = 1;
  card.pioAnswer[0] = 'Q';
  card.analogSum[0] = card.analogSum[5] = 1;
  card.sampleCount = 3;
  card.samplesPerAverage = 9;
  card.clearPerifCard();
  EXPECT_EQ(3, card.cardClass + card.blockCount + card.kindCode + card.pollEnabled);
  EXPECT_EQ(0, card.blockState[0] + card.changeFlag[0] + card.analogSum[0] + card.analogSum[5]);
  EXPECT_EQ("EMPTY", card.name + ToHex(card.pollFrame));
  EXPECT_EQ(6, card.samplesPerAverage);
  EXPECT_EQ(5 + 3 + 'Q', card.address + card.sampleCount + card.pioAnswer[0]);
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

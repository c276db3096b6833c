#include "master/cae_commands.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>

#include "support.h"

namespace {

// A console whose lines end with CR LF and whose answers end with '~'. While the console waits, the
// bench plays the card.
class BENCH {
 public:
  BENCH() {
    for (PERIFCARD& card : table_.cards) card.clearPerifCard();
  }

  // Answers, each behind a '|', and what was on the bus during each wait.
  std::string Run(const std::string& line) {
    told_.clear();
    console_.Execute(line);
    Note();
    return told_;
  }

  // What the lines with '!' ask for.
  std::string Arrange(const std::string& order) {
    if (order == "!delays") {
      std::string delays;
      for (const int delay : delays_) delays += (delays.empty() ? "" : " ") + std::to_string(delay);
      return delays;
    }
    if (order == "!poll frame 5") return ToHex(table_.cards[5].pollFrame);
    if (order.find("!cards ") == 0) Discover(order.substr(7));
    if (order.find("!all ") == 0) SetKinds(std::stoi(order.substr(5)));
    const std::size_t line = order.find(' ', 7) + 1;
    return order.find("!trial ") == 0 ? Trial(std::stoi(order.substr(7)), order.substr(line)) : "";
  }

  void SetKinds(int kind) {
    for (PERIFCARD& card : table_.cards) {
      card.kindCode = static_cast<unsigned char>(kind);
      std::memset(card.blockState, 0xF1, sizeof card.blockState);
    }
  }

 private:
  std::string Trial(int kind, const std::string& line) {
    SetKinds(kind);
    std::string told = Run(line + "\r\n");
    cardAnswers_ = false;
    told += " " + Run(line + "\r\n");
    SetKinds(10);
    told += " " + Run(line + "\r\n");
    cardAnswers_ = true;
    return told;
  }

  void Note(const std::string& then = "") {
    while (!answers_.IsEmpty()) told_ += "|" + TextOf(answers_.DeQueue());
    while (!input_.IsEmpty()) told_ += "|IO " + TextOf(input_.DeQueue());
    EXPECT_TRUE(bus_.IsEmpty());
    told_ += then;
  }

  void Discover(const std::string& kinds) {
    ApplyDiscoveryAnswer(FromHex<REPLY>("31 " + kinds), table_.cards);
  }

  void Wait(int seconds) {
    const BYTE_LIST request = bus_.DeQueue();
    Note();
    told_ += "|" + std::to_string(seconds) + " s [" + ToHex(request) + "]";
    if (!polling_) told_ += " paused, 5 is " + std::to_string(table_.cards[5].kindCode);
    if (request.size() == 1) Discover("00 00 00 00 00 04 00 00 00 00 00 00 00 00 00 03");
    if (request.size() < 2 || !cardAnswers_) return;
    const unsigned char address = ByteOf(*std::next(request.begin()));
    ApplyDirectAnswer({'Q', address, 0x40, 0xA7}, &table_.cards[address]);
  }

  CARD_TABLE table_;
  TLQUEUE answers_, bus_, input_;
  SHARED<bool> polling_ = true;
  SHARED<int> delays_[5];
  bool cardAnswers_ = true;
  std::string told_;
  const std::function<void(int)> wait_ = [this](int seconds) { Wait(seconds); };
  const std::array<SHARED<int>*, 5> all_ = {&delays_[0], &delays_[1], &delays_[2], &delays_[3],
                                            &delays_[4]};
  CAE_CONSOLE console_{CAE_CONTEXT{&table_, &answers_, &bus_, &input_, &polling_, all_, "\r\n", "~",
                                   wait_, [this] { Note("|close"); }}};
};

TEST(CaeCommands, Dialogues) {
  BENCH bench;
  ExpectCases("console.txt", [&bench](const std::string& line) {
    return line[0] == '!' ? bench.Arrange(line) : bench.Run(line + "\r\n");
  });
}

TEST(CaeCommands, Texts) {
  const char* const texts[][2] = {{"HELP\r\n", "help.txt"}, {"IOEXAMPLES\r\n", "io_examples.txt"}};
  for (const auto& text : texts) {
    const std::string lines = ReadFile(std::string(TALP_TEST_DATA "/") + text[1]);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("|" + Replaced(lines, "\n", "~|") + ">~", BENCH().Run(text[0]));
  }
}

// No syntax is checked, so that nothing may fail where an argument is not there. The separator may
// stand anywhere, but without one only SPEED= is known.
TEST(CaeCommands, MissingArgumentsAndSeparators) {
  for (const std::string key :
       {"SPEED=", "LCDSELFTEST:", "REBOOT:", "SETANMASK:", "GETANMASK:", "STORESRVPOS:", "SETSC",
        "GETSC", "SETMSR", "GETMSR", "STOREMSRS", "POLLON:", "POLLOFF:", "GETLASTINPST:"}) {
    for (const char* rest : {"", ":", "=", ":=", "=:", ":F=", "\xFF:\xFF=\xFF", "1", "x:1=1"}) {
      for (const int kind : {4, 5, 6, 7, 9}) {
        BENCH bench;
        bench.SetKinds(kind);
        const std::string told = bench.Run("\r\n" + key + rest);
        EXPECT_NE(std::string::npos, told.find("|CI")) << key << rest << told;
        EXPECT_EQ(told.find("~|>~"), told.rfind(">~") - 2) << key << rest << told;
        const bool unknown = bench.Run(key + rest) == "|CIE: UNKNOWN COMMAND ~>~";
        EXPECT_EQ(key != "SPEED=", unknown) << key << rest;
      }
    }
  }
}

}  // namespace

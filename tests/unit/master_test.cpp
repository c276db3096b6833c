#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>

#include "bus/frame.h"
#include "master/cae_commands.h"
#include "master/perifcard.h"
#include "support.h"

namespace {

TEST(PerifCard, DiscoveryWithoutClearing) {
  PERIFCARD cards[kAddressCount];
  // The poll frame grows, but not beyond what one frame can carry.
  for (int i = 0; i < 100; ++i) ApplyDiscoveryAnswer(REPLY(17, kKindDigitalInput), cards);
  EXPECT_EQ(255U, cards[1].pollFrame.size());
}

TEST(PerifCard, DirectAnswerReplacesTheOneBefore) {
  PERIFCARD card;
  ApplyDirectAnswer(REPLY(17, 0x51), &card);
  ApplyDirectAnswer(FromHex("51 05 01"), &card);
  EXPECT_EQ("51 05 01 00 00 00 00 00 00 00 00 00 00 00 00 00", ToHex(card.pioAnswer));
}

TEST(PerifCard, AddressOfAnAnswer) {
  EXPECT_EQ(15, AnswerAddress(FromHex("21 0F")));
  EXPECT_EQ(-1, AnswerAddress(FromHex("21 10")));
  EXPECT_EQ(-1, AnswerAddress(FromHex("21")));
}

constexpr CASE kDigitalInputs[] = {
    {"00 FB", "aAb1dFB changed"}, {"00 FB", ""},      {"40 00 99", "aAb0d40 aAb1d00 changed"},
    {"40 80", "aAb1d80 changed"}, {"77", "aAb1d80 "},  // too short: the flags are those of before
};

// Input answers of the card at address A, the lines that IO clients get, and whether any changed.
TEST(PerifCard, Inputs) {
  PERIFCARD card;
  const auto lines = [&card](const std::string& data) {
    const bool changed = ApplyInputAnswer(FromHex("21 0A " + data), &card);
    std::string text;
    for (const std::string& line : ChangedInputLines(10, card)) text += line + " ";
    return text + (changed ? "changed" : "");
  };
  card.kindCode = kKindDigitalInput;
  ExpectCases(lines, kDigitalInputs);
  card.clearPerifCard();
  card.kindCode = kKindAnalogueInput;
  // Six samples are averaged (sums 1530, 0, 10, 773, 17 and 5); those of the seventh answer are
  // dropped.
  for (int i = 0; i < 5; ++i) EXPECT_EQ("", lines("FF 00 01 80 03 00"));
  EXPECT_EQ("", lines("FF FF FF FF FF"));  // too short
  EXPECT_EQ("", lines("FF 00 05 85 02 05"));
  EXPECT_EQ("aAb0dFF aAb2d01 aAb3d80 aAb4d02 changed", lines("00 00 00 00 00 00"));
  for (int i = 0; i < 6; ++i) EXPECT_EQ("", lines("FF 00 01 80 03 00"));
  EXPECT_EQ("aAb4d03 changed", lines("00 00 00 00 00 00"));
  card.kindCode = kKindDigitalOutput;  // of a kind without inputs nothing stays changed
  EXPECT_EQ("", lines("00"));
  card.kindCode = kKindDigitalInput;
  EXPECT_EQ("aAb0d11 changed", lines("11 00"));
  card.clearPerifCard();
  EXPECT_TRUE(ChangedInputLines(10, card).empty());
  card.kindCode = kKindAnalogueInput;
  // Clearing drops the sums but not the count of the samples in them.
  for (int i = 0; i < 3; ++i) EXPECT_EQ("", lines("60 60 60 60 60 60"));
  card.clearPerifCard();
  card.kindCode = kKindAnalogueInput;
  for (int i = 0; i < 3; ++i) EXPECT_EQ("", lines("3C 00 00 00 00 00"));
  EXPECT_EQ("aAb0d1E changed", lines("00 00 00 00 00 00"));
}

// A console whose lines end with CR LF and whose answers end with '~'. While it waits, it plays the
// card.
class CONSOLE {
 public:
  // What was on the bus during each wait, then the answers, each behind a '|'.
  std::string Run(const std::string& line) {
    seen_.clear();
    console_.Execute(line);
    while (!answers_.IsEmpty()) seen_ += "|" + TextOf(answers_.DeQueue());
    while (!input_.IsEmpty()) seen_ += "|IO " + TextOf(input_.DeQueue());
    return seen_;
  }

  void Discover(const std::string& kinds) {
    ApplyDiscoveryAnswer(FromHex("31 " + kinds), table.cards);
  }

  void SetKinds(int kind) {
    for (PERIFCARD& card : table.cards) card.kindCode = static_cast<unsigned char>(kind);
  }

  std::string Delays() {
    std::string text;
    for (const int delay : delays_) text += std::to_string(delay) + " ";
    return text;
  }

  CARD_TABLE table;
  bool cardAnswers = true;

 private:
  void Wait(int seconds) {
    const BYTE_LIST request = bus_.DeQueue();
    seen_ += "|" + std::to_string(seconds) + " s [" + ToHex(request) + "]";
    if (!polling_) seen_ += " paused, 5 is " + std::to_string(table.cards[5].kindCode);
    if (request.size() == 1) Discover("00 00 00 00 00 04 00 00 00 00 00 00 00 00 00 04");
    if (request.size() < 2 || !cardAnswers) return;
    const unsigned char address = ByteOf(*std::next(request.begin()));
    ApplyDirectAnswer({'Q', address, 0x40, 0xA7}, &table.cards[address]);
  }

  TLQUEUE answers_, bus_, input_;
  SHARED<bool> polling_ = true;
  SHARED<int> delays_[5];
  std::string seen_;
  CAE_CONSOLE console_{{&table,
                        &answers_,
                        &bus_,
                        &input_,
                        &polling_,
                        {&delays_[0], &delays_[1], &delays_[2], &delays_[3], &delays_[4]},
                        "\r\n",
                        "~",
                        [this](int seconds) { Wait(seconds); },
                        [] {}}};
};

struct CARD_COMMAND_CASE {
  int kind;
  const char* line;
  const char* request;
  const char* success;
  const char* failure;    // of a silent card
  const char* wrongKind;  // of a card of another kind; none: every kind will do
};

constexpr char kLcd[] = "VALID FOR LCD CONTROL CARD";
constexpr char kAnalogue[] = "VALID ON ANALOG INPUT CARD";
constexpr char kServo[] = "VALID ON SERVO CONTROLLER CARD";
constexpr char kMotor[] = "VALID ON DC MOTOR CONTROLLER CARD";

// clang-format off
constexpr CARD_COMMAND_CASE kCardCommands[] = {
    {9, "LCDSELFTEST:E=ON", "50 0E 01 01 FF", "SELFTEST STATE IS SET TO ON at address E", "STATE WRITE", kLcd},
    {9, "LCDINITLIGHT:E=OFF", "50 0E 01 02 00", "INITLIGHT STATE IS SET TO OFF at address E", "STATE WRITE", kLcd},
    // Each of the two remembers ON and OFF for what is neither.
    {9, "LCDSELFTEST:E=xy", "50 0E 01 01 FF", "SELFTEST STATE IS SET TO xy at address E", "STATE WRITE", kLcd},
    {7, "SETANMASK:7=3F", "50 07 01 01 3F", "Channel MASK of the card is SET~|AMS:0x7:0x3F", "MASK WRITE", kAnalogue},
    {7, "GETANMASK:7", "50 07 40 01", "MASK is GOT from card~|AMV:0x7:0xA7", "MASK READ", kAnalogue},
    {7, "STOREANMASK:f", "50 00 01 02", "MASK IS STORED at address f", "MASK STORE", kAnalogue},
    {5, "STORESRVPOS:2", "50 02 01 74", "POSITIONS ARE STORED at address 2", "POSITION STORING", kServo},
    {5, "MOVESTRPOS:2", "50 02 01 3F", "SERVOS ARE MOVED TO STORED POSITIONS at address 2", "POSITIONS MOVING", "LEGAL ON SERVO CONTROLLER CARD"},
    {5, "SETSCB3:2=80", "50 02 01 D3 80", "SERVO PARAM of the card is SET~|SPS:0x2:SCB3:0x80", "PARAM WRITE", kServo},
    {5, "SETSCA5:2=0", "50 02 01 C5 00", "SERVO PARAM of the card is SET~|SPS:0x2:SCA5:0x00", "PARAM WRITE", kServo},
    {5, "GETSCA3:2", "50 02 40 24", "SERVO PARAM is GOT from card~|SPG:0x2:SCA3:0xA7", "PARAM READ", kServo},
    {5, "GETSCB5:2", "50 02 40 2C", "SERVO PARAM is GOT from card~|SPG:0x2:SCB5:0xA7", "PARAM READ", kServo},
    {6, "SETMSR2:4=1F", "50 04 01 C2 1F", "MSR value of the card is SET~|MPS:0x4:MSR2:0x1F", "PARAM WRITE", kMotor},
    {6, "GETMSR1:4", "50 04 40 02", "MSR value is GOT from card~|MSR1:0x4:0xA7", "PARAM READ", kMotor},
    {6, "STOREMSRS:4", "50 04 01 CD", "MSR values are STORED at address 4", "MSR STORING", kMotor},
    {8, "REBOOT:B", "50 0B 01 AB", "Card is REBOOTED~|RBT:0xB:OK", "BUS WRITE", nullptr},
};
// clang-format on

// To cards that answer, to silent ones, whose answers of before must not count, and to cards of
// another kind, which must not see the request.
TEST(Console, CardCommands) {
  CONSOLE console;
  for (const CARD_COMMAND_CASE& row : kCardCommands) {
    SCOPED_TRACE(row.line);
    const std::string line = std::string(row.line) + "\r\n";
    const std::string wait = std::string("|1 s [") + row.request + "]|";
    console.SetKinds(row.kind);
    console.cardAnswers = true;
    EXPECT_EQ(wait + "CIA: " + row.success + "~|>~", console.Run(line));
    console.cardAnswers = false;
    EXPECT_EQ(wait + "CIE: " + row.failure + " ERROR~|>~", console.Run(line));
    if (row.wrongKind == nullptr) continue;
    console.SetKinds(kKindIrRemote);
    EXPECT_EQ("|CIE: THIS COMMAND IS " + std::string(row.wrongKind) + " ONLY~|>~",
              console.Run(line));
  }
}

constexpr CASE kDriverCommands[] = {
    {"POLLOFF:7", "|CIA: POLLOFF is OK at address 7~|>~"},
    {"POLLON:7", "|CIA: POLLON is OK at address 7~|>~"},
    // All commands in a line are run, with the arguments of the first.
    {"POLLON:3 POLLOFF:8", "|CIA: POLLON is OK at address 3~|CIA: POLLOFF is OK at address 3~|>~"},
    {"POLLON:5", "|CIE: THIS COMMAND IS VALID ON INPUT CARDS~|>~"},
    {"POLLSTATE", "|CIA: GLOBAL POLLING IS ENABLED~|PTI:0x3:OFF~|PTI:0x7:ON~|PTI:0x8:ON~|>~"},
    // The IO client gets the line.
    {"GETLASTINPST:3=1", "|CIA: LAST INPUT STATE SENT ON IO INTERFACE~|>~|IO a3b1d00"},
    {"GETLASTINPST:3=2", "|CIE: INVALID BLOCK NUMBER~|>~"},
    {"GETLASTINPST:8=0", "|CIE: THIS COMMAND IS VALID ON ANALOG OR DIGITAL INPUT CARD ONLY~|>~"},
    {"GETLASTINPST:7=0", "|CIA: LAST INPUT STATE SENT ON IO INTERFACE~|>~|IO a7b0d00"},
    {"GETLASTINPST:7=5", "|CIA: LAST INPUT STATE SENT ON IO INTERFACE~|>~|IO a7b5d00"},
    {"GETLASTINPST:7=6", "|CIE: INVALID BLOCK NUMBER~|>~"},
    {" DRVVER", "|CIE: UNKNOWN COMMAND ~>~"},
    {"SPEED=0", "|CIE: Parameter is out of range (1..100)~|>~"},
    {"SPEED=1", "|CIA: SPEED IS SET to 1%~|>~"},
    {"SPEED=100", "|CIA: SPEED IS SET to 100%~|>~"},
    {"SPEED=101", "|CIE: Parameter is out of range (1..100)~|>~"},
    {"SPEED= 099x", "|CIA: SPEED IS SET to  099x%~|>~"},
    {"a=2 SPEED=50", "|CIA: SPEED IS SET to 2 SPEED=50%~|>~"},
};

TEST(Console, DriverCommands) {
  CONSOLE console;
  console.Discover("00 00 00 04 0A 03 06 07 08 09 00 00 00 00 00 05");
  ExpectCases([&](const std::string& line) { return console.Run(line + "\r\n"); }, kDriverCommands);
  EXPECT_EQ("4949 4949 4949 4949 4949 ", console.Delays());
  // The separator may stand anywhere, but without one only SPEED= is known.
  EXPECT_EQ("|CIA: POLLON is OK at address 3~|>~", console.Run("\r\nPOLLON:3"));
  EXPECT_EQ("|CIE: UNKNOWN COMMAND ~>~", console.Run("POLLON:3"));
  EXPECT_EQ("|CIA: SPEED IS SET to 99%~|>~", console.Run("SPEED=99"));
  EXPECT_EQ("|CIE: Parameter is out of range (1..100)~|>~", console.Run("\r\nSPEED=99"));
  EXPECT_EQ("51 51 51 51 51 ", console.Delays());
  EXPECT_EQ("|CIA: SPEED IS SET to 50%~|>~", console.Run("SPEED=50\r"));
}

// Polling rests during a discovery and is then as it was; poll frames start afresh.
TEST(Console, ForcedDiscovery) {
  CONSOLE console;
  for (const char* polling : {"ENABLED", "DISABLED"}) {
    console.Discover("00 00 00 00 00 03 00 00 00 00 00 04 00 00 00 04");
    const std::string forced = console.Run("FORCEDISCOVER\r\n");
    const std::string list = console.Run("DISCOVER\r\n").substr(1);
    EXPECT_EQ("|1 s [] paused, 5 is 3|1 s [30] paused, 5 is 0|FORCED " + list, forced);
    EXPECT_EQ("20 05 02", ToHex(console.table.cards[5].pollFrame));
    EXPECT_EQ("20 0F 02", ToHex(console.table.cards[15].pollFrame));
    EXPECT_NE(std::string::npos, console.Run("POLLSTATE\r\n").find(polling)) << polling;
    console.Run("DISABLEPOLL\r\n");
  }
}

// Their lines and a checksum of them, and the misspellings and blanks that programs that drive the
// console know.
TEST(Console, Texts) {
  CONSOLE console;
  const std::string help = console.Run("HELP\r\n");
  const std::string examples = console.Run("IOEXAMPLES\r\n");
  EXPECT_EQ(69 + 1, std::count(help.begin(), help.end(), '~'));
  EXPECT_EQ(22 + 1, std::count(examples.begin(), examples.end(), '~'));
  std::uint32_t checksum = 2166136261U;  // FNV-1a
  for (const char c : help + examples) checksum = (checksum ^ ByteOf(c)) * 16777619U;
  EXPECT_EQ(1873440746U, checksum);
  for (const char* oddity :
       {" gblobal ", "COMMANSDS", " switchs ", "(mm=00..3F) ~", "at  address", "(n max 23)~",
        "~| ~|", "|     Than type", " adressed ", "display ~|"}) {
    EXPECT_NE(std::string::npos, (help + examples).find(oddity)) << oddity;
  }
}

}  // namespace

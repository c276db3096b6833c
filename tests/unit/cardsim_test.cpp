#include <gtest/gtest.h>

#include <array>
#include <string>

#include "cardsim/console.h"
#include "cardsim/frame_assembler.h"

namespace cardsim {
namespace {

struct BENCH {
  CARD_BUS bus{"1.20"};
  FAULT_PLAN faults;
  SWITCHES switches;
  CONSOLE console{&bus, &faults, &switches, CABLE{}};
  LINES lines;

  BENCH() {
    for (const char* line : {"card 3 din", "card 5 dout", "card 0 servo", "card 6 motor",
                             "card F analog", "card E lcd", "card 9 ir", "card A 0C"}) {
      console.Run(line, &lines);
    }
  }

  // The bytes of the reply to the request, pieces parted by '/', and the lines, parted by ';'.
  std::string Ask(const std::string& request) {
    BYTES payload;
    for (const std::string& word : SplitWords(request)) payload.push_back(*ParseHexByte(word));
    std::string told;
    if (const auto answer = bus.Answer(payload, &lines)) {
      for (const PIECE& piece : faults.Spoil(*answer, &lines)) {
        if (piece.delayMs > 0) told += "/" + std::to_string(piece.delayMs) + "ms ";
        told += HexText(piece.bytes);
      }
    }
    for (const std::string& line : lines) told += "; " + line;
    lines.clear();
    return told;
  }
};

// One bus goes through all rows: what one row sets, a later one reads back.
TEST(Cardsim, AnswersRequests) {
  const std::array<const char*, 3> rows[] = {
      // typed, request, told
      {{"", "40 6F 9A", "05 40 31 2E 32 30"}},
      {{"", "40 6F", "; ignored 40 6F"}},
      {{"", "30", "11 31 05 00 00 04 00 03 06 00 00 0A 0C 00 00 00 09 07"}},
      {{"set 3 1 fb", "20 03 02", "04 21 03 00 FB"}},
      {{"set F 5 7E", "20 0F 06 20 0F 06", "08 21 0F 00 00 00 00 00 7E"}},
      {{"", "20 03 06", "02 4E 03"}},
      {{"", "20 FF 02", "02 4E FF"}},
      {{"", "10 05 02 FF FB", "02 41 05; out 5 dout b0=FF b1=FB"}},
      {{"", "10 05 03 FF FB", "02 4E 05; refused 10 05 03 FF FB: count and data differ"}},
      {{"", "10 09 03 02 4F 22", "02 41 09; ir 9 4F 22 \"O\\\"\""}},
      {{"", "10 0E 08 09 11 01 41 42 E9 44 00",
        "02 41 0E; lcd E text 17,1 \"AB\\xE9D\"; lcd E row 0 |SELF TEST           |; "
        "lcd E row 1 |                 AB.|; lcd E row 2 |                    |; "
        "lcd E row 3 |                    |"}},
      {{"", "50 00 01 D5 80", "04 51 00 D5 80; direct 0 SCB5=80"}},
      {{"", "50 00 40 2C", "04 51 00 2C 80; direct 0 SCB5? 80"}},
      {{"", "50 00 40 26", "04 51 00 26 00; direct 0 SCA5? 00"}},
      {{"", "50 06 01 C2 11", "04 51 06 C2 11; direct 6 MSR2=11"}},
      {{"", "50 06 01 AB", "04 51 06 AB 00; direct 6 reboot"}},
      {{"", "50 06 40 03", "04 51 06 03 08; direct 6 MSR2? 08"}},
      {{"answer 6 77", "50 06 40 03", "04 51 06 03 77; direct 6 MSR2? 77"}},
      {{"", "50 05 40 01", "02 4E 05; refused 50 05 40 01: the card knows no such command"}},
      {{"fault lost 1 on poll", "50 05 01 AB", "04 51 05 AB 00; direct 5 reboot"}},
      {{"", "20 03 02", "; fault lost done"}},
      {{"fault split 1 4", "20 03 02", "04/4ms 21 03/8ms 00 FB; fault split done"}},
      {{"fault long", "20 03 02", "04 21 03 00 FB EE EE EE; fault long done"}},
      {{"fault misaddressed 1 F3", "20 03 02", "04 21 F3 00 FB; fault misaddressed done"}},
      {{"fault error 2 4E", "20 03 02", "04 4E 03 00 FB"}},
      {{"fault empty", "20 03 02", "04 4E 03 00 FB; fault error done"}},
      {{"", "20 03 02", "00; fault empty done"}},
      {{"fault error 3", "20 03 02",
        "04 21 03 00 FB; error: fault error [N|forever] HH [on REQUEST]"}},
      {{"set 5 0 00", "20 03 02", "04 21 03 00 FB; error: card 5 has 0 input blocks"}},
  };
  BENCH bench;
  for (const auto& [typed, request, told] : rows) {
    bench.console.Run(typed, &bench.lines);
    EXPECT_EQ(bench.Ask(request), told) << typed << " / " << request;
  }
}

TEST(Cardsim, CutsFramesFromPieces) {
  FRAME_ASSEMBLER assembler;
  BYTES payload;
  const unsigned char bytes[] = {0x00, 0x02, 0xFF, 0xEE, 0x03, 0x20};
  assembler.Append(bytes, 3);
  ASSERT_TRUE(assembler.Next(&payload) && payload.empty());
  ASSERT_FALSE(assembler.Next(&payload));
  assembler.Append(bytes + 3, 3);
  ASSERT_TRUE(assembler.Next(&payload) && (payload == BYTES{0xFF, 0xEE}));
  ASSERT_FALSE(assembler.Next(&payload));
  EXPECT_EQ(assembler.Partial(), (BYTES{0x03, 0x20}));
}

}  // namespace
}  // namespace cardsim

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
    for (const char* line : {"card 3 din", "card 5 dout", "card 0 servo", "card 6 motor"}) {
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
      {{"", "40 6F", "; ignored 40 6F"}},
      {{"set 3 1 fb", "20 03 02", "04 21 03 00 FB"}},
      {{"", "20 03 06", "02 4E 03"}},
      {{"", "10 05 03 FF FB", "02 4E 05; refused 10 05 03 FF FB: count and data differ"}},
      {{"", "50 00 01 D5 80", "04 51 00 D5 80; direct 0 SCB5=80"}},
      {{"", "50 00 40 2C", "04 51 00 2C 80; direct 0 SCB5? 80"}},
      {{"", "50 06 40 03", "04 51 06 03 08; direct 6 MSR2? 08"}},
      {{"", "50 05 40 01", "02 4E 05; refused 50 05 40 01: the card knows no such command"}},
      {{"fault lost 1 on poll", "50 05 01 AB", "04 51 05 AB 00; direct 5 reboot"}},
      {{"", "20 03 02", "; fault lost done"}},
      {{"fault split 1 4", "20 03 02", "04/4ms 21 03/8ms 00 FB; fault split done"}},
      {{"fault misaddressed 1 F3", "20 03 02", "04 21 F3 00 FB; fault misaddressed done"}},
      {{"fault empty", "20 03 02", "00; fault empty done"}},
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
  std::string told;
  for (const unsigned char byte : {0x00, 0x02, 0xFF, 0xEE, 0x03, 0x20}) {
    assembler.Append(&byte, 1);
    for (BYTES payload; assembler.Next(&payload);) told += "[" + HexText(payload) + "]";
  }
  EXPECT_EQ(told + HexText(assembler.Partial()), "[][FF EE]03 20");
}

}  // namespace
}  // namespace cardsim

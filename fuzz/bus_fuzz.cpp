// What the card bus answers: sequences of exchanges, their replies applied to the card table as
// the serial link does it.

#include "bus/frame.h"
#include "fuzz_input.h"

namespace {

constexpr std::size_t kDispatchSize = 100;
constexpr std::size_t kReadSize = 255;
constexpr int kMaxReads = 16;

// One exchange. The input gives the number of reads and what each of them yields.
BYTE_LIST Exchange(const BYTE_LIST& request, FUZZ_INPUT* input) {
  REPLY_WAIT wait(request);
  std::string wire;
  for (int reads = input->Byte() % kMaxReads; reads >= 0 && wait.Waiting(); --reads) {
    const std::string bytes = input->Bytes(input->Byte() % (kReadSize + 1));
    wait.Attempt(bytes.data(), bytes.empty() ? -1 : static_cast<long>(bytes.size()));
    wire += bytes;
  }
  BYTE_LIST reply = wait.Reply();
  const std::size_t promised = wire.empty() ? kMaxReplySize + 1 : ByteOf(wire[0]);
  const bool complete = promised <= kMaxReplySize && wire.size() > promised;
  const std::string expected = complete ? wire.substr(1, promised) : "TME";
  Require(std::string(reply.begin(), reply.end()) == expected,
          "a reply is what its length byte promised, or the timeout reply");
  return reply;
}

void CheckLines(int address, const PERIFCARD& card) {
  for (const std::string& line : ChangedInputLines(address, card)) {
    Require(IsInputLine(line), "an input line has its form");
    Require(HexCharToByte(line[1]) == address, "an input line tells its own card");
  }
}

void Apply(const BYTE_LIST& reply, PERIFCARD* cards) {
  if (GetQListError(reply) != kReplyGood) return;
  REPLY answer;
  for (const char c : reply) {
    if (answer.size() < kDispatchSize) answer.push_back(ByteOf(c));
  }
  const int address = AnswerAddress(answer);
  Require(address >= -1 && address < kAddressCount, "an address reaches a record or none");
  if (answer[0] == kDiscoveryAnswer) ApplyDiscoveryAnswer(answer, cards);
  if (address < 0) return;
  if (answer[0] == kDirectAnswer) ApplyDirectAnswer(answer, &cards[address]);
  if (answer[0] == kInputAnswer) ApplyInputAnswer(answer, &cards[address]);
  CheckLines(address, cards[address]);
}

void CheckCard(const PERIFCARD& card) {
  const CARD_KIND& kind = CardKindOf(card.kindCode);
  Require(card.cardClass == kind.cardClass && card.blockCount == kind.blockCount,
          "class and blocks are those of the kind");
  Require(std::string(card.name) == kind.name, "the name is that of the kind");
  Require(card.sampleCount >= 0 && card.sampleCount <= card.samplesPerAverage,
          "no more samples are summed than make an average");
  for (const int sum : card.analogSum) {
    Require(sum >= 0 && sum <= card.samplesPerAverage * 255, "a sum is one of bytes");
  }
  for (const unsigned char flag : card.changeFlag) Require(flag <= 1, "a flag is 0 or 1");
  Require(card.pollFrame.size() <= kMaxPayloadSize && card.pollFrame.size() % 3 == 0,
          "the poll frame fits the wire and holds whole polls");
  Require(BuildRequestFrame(card.pollFrame).size == card.pollFrame.size() + 1,
          "the poll frame is sent whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const BYTE_LIST kRequests[] = {
      DiscoveryRequest(), HandshakeRequest(), {0x20, 2, 6}, {0x50, 2, 1, 1}};
  FUZZ_INPUT input(data, size);
  PERIFCARD cards[kAddressCount + 1];
  FillCards(input.Byte(), cards);
  while (!input.Empty()) {
    const BYTE_LIST reply = Exchange(kRequests[input.Byte() % std::size(kRequests)], &input);
    Require(HandshakeVersion(reply).size() <= 4, "a version has four characters at most");
    Apply(reply, cards);
    for (const PERIFCARD& card : cards) CheckCard(card);
  }
  return 0;
}

// What the card bus answers: sequences of exchanges, their replies applied to the card table as
// the serial link does it.

#include "fuzz_input.h"

namespace {

constexpr int kMaxReads = 16;

// One exchange. The input gives the number of reads and what each of them yields.
BYTE_LIST Exchange(const BYTE_LIST& request, FUZZ_INPUT* input) {
  REPLY_WAIT wait(request);
  std::string wire;
  for (int reads = input->Byte() % kMaxReads; reads >= 0 && wait.Waiting(); --reads) {
    const std::string bytes = input->Bytes(input->Byte());
    wait.Attempt(bytes.data(), static_cast<long>(bytes.size()));
    wire += bytes;
  }
  BYTE_LIST reply = wait.Reply();
  const std::size_t promised = wire.empty() ? kMaxReplySize + 1 : ByteOf(wire[0]);
  const bool complete = promised <= kMaxReplySize && wire.size() > promised;
  Require(TextOf(reply) == (complete ? wire.substr(1, promised) : "TME"),
          "a reply is what its length byte promised, or the timeout reply");
  return reply;
}

void Apply(const BYTE_LIST& reply, PERIFCARD* cards) {
  if (GetQListError(reply) != kReplyGood) return;
  const REPLY answer(reply.begin(), reply.end());
  if (answer[0] == kDiscoveryAnswer) ApplyDiscoveryAnswer(answer, cards);
  const int address = AnswerAddress(answer);
  Require(address >= -1 && address < kAddressCount, "an address reaches a record or none");
  if (address < 0) return;
  if (answer[0] == kDirectAnswer) ApplyDirectAnswer(answer, &cards[address]);
  if (answer[0] == kInputAnswer) ApplyInputAnswer(answer, &cards[address]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FUZZ_INPUT input(data, size);
  CARDS cards = AllCards();
  while (!input.Empty()) {
    const BYTE_LIST reply = Exchange({static_cast<char>(input.Byte())}, &input);
    Require(HandshakeVersion(reply).size() <= 4, "a version has four characters at most");
    Apply(reply, cards.data());
  }
  for (const PERIFCARD& card : cards) {
    Require(card.sampleCount <= card.samplesPerAverage, "no more samples than make an average");
    Require(card.pollFrame.size() <= kMaxPayloadSize && card.pollFrame.size() % 3 == 0,
            "the poll frame fits the wire and holds whole polls");
  }
  return 0;
}

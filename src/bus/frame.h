#ifndef TALP_BUS_FRAME_H_
#define TALP_BUS_FRAME_H_

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "core/byte_list.h"

// The card bus wire: a frame is one length byte and that many payload bytes, the same in both
// directions. Pure rules: nothing here reads, writes or waits. Any thread.

constexpr std::size_t kMaxPayloadSize = 255;  // the highest value of the length byte
constexpr std::size_t kMaxReplySize = 131;    // the longest reply payload that is accepted

// The codes stand in docs/card-bus.md. Command bytes, the first payload byte of a request:
constexpr char kDiscoveryCommand = 0x30;
constexpr char kHandshakeCommand = 0x40;
constexpr char kSetOutputsCommand = 0x10;
constexpr char kPollCommand = 0x20;
constexpr char kDirectCommand = 0x50;

// Reply codes, the first payload byte of a reply. GetQListError knows those that mean an error.
constexpr char kDiscoveryAnswer = 0x31;
constexpr char kInputAnswer = 0x21;
constexpr char kDirectAnswer = 0x51;

// The payload of a reply, for access by index. The first byte is the reply code.
using REPLY = std::vector<unsigned char>;

BYTE_LIST DiscoveryRequest();
BYTE_LIST HandshakeRequest();

// The version in a good handshake reply: the four characters after the code byte, fewer if the
// reply is shorter or contains a zero byte.
std::string HandshakeVersion(const BYTE_LIST& reply);

// Synthetic replies, where none comes from the bus. GetQListError classifies the reply to an empty
// request as good, so an empty request does not cost the connection.
BYTE_LIST EmptyRequestReply();
BYTE_LIST TimeoutReply();

// A request as it goes on the wire, in one write(2).
struct REQUEST_FRAME {
  std::array<char, 1 + kMaxPayloadSize> bytes;
  std::size_t size;
};

// Payloads of more than 255 bytes cannot be framed and are cut.
REQUEST_FRAME BuildRequestFrame(const BYTE_LIST& request);

// One wait for a reply. Its timeout is counted in read attempts: 300000 for discovery and
// handshake, 150000 for all other requests. The caller reads without a pause while Waiting() and
// passes the result of every attempt to Attempt.
class REPLY_WAIT {
 public:
  explicit REPLY_WAIT(const BYTE_LIST& request);

  bool Waiting() const { return waiting_ && attempts_ < budget_; }

  // Takes the result of one read attempt: `count` bytes, or 0 or less if nothing came.
  void Attempt(const char* bytes, long count);

  // The reply's payload. The timeout reply if the reply is incomplete, announces more than
  // kMaxReplySize bytes, or was completed only by the last permitted attempt.
  BYTE_LIST Reply() const;

 private:
  bool Complete() const;

  const int budget_;
  int attempts_ = 0;
  bool waiting_ = true;
  std::size_t received_ = 0;
  std::array<char, 1 + kMaxReplySize> buffer_{};  // length byte first
};

#endif  // TALP_BUS_FRAME_H_

#ifndef TALP_NET_CLIENT_FRAMING_H_
#define TALP_NET_CLIENT_FRAMING_H_

#include <cstddef>
#include <string>

#include "core/byte_list.h"

// How messages travel between an interface and its client, and the first and last text that a
// client receives. Pure rules, any thread.

// Sent to a client before its connection is closed by command, and the time to read it.
constexpr char kFarewell[] = "TALP: Bye Bye...";
constexpr int kFarewellPause = 1;  // seconds

// What one read yields, at most so many bytes, is one message.
constexpr std::size_t kClientReadSize = 255;

enum class FramingMode : int {
  LengthPrefixed = 1,  // a length byte and that many bytes
  Text = 2             // in: the bytes up to the first NUL; out: the bytes and a carriage return
};

// The message in `count` received bytes (at least 1). If a length byte announces more bytes than
// were received, the message ends with those.
BYTE_LIST DecodeInbound(FramingMode mode, const char* bytes, std::size_t count);

// `message` as it is written to the client. In LengthPrefixed mode the length byte is the low byte
// of the size.
std::string EncodeOutbound(FramingMode mode, const BYTE_LIST& message);

// The greeting of the interface called `name`; empty for a name without one.
std::string BannerOf(const std::string& name);

#endif  // TALP_NET_CLIENT_FRAMING_H_

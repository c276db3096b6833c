#ifndef TALP_NET_CLIENT_FRAMING_H_
#define TALP_NET_CLIENT_FRAMING_H_

#include <cstddef>
#include <string>

#include "core/byte_list.h"

// How messages travel between an interface and its client. Pure rules, any thread.
enum FramingMode : int {
  LengthPrefixed = 1,  // a length byte and that many bytes
  Text = 2             // in: the bytes up to the first NUL; out: the bytes and a carriage return
};

// The message in `count` received bytes (at least 1). A length byte that promises more bytes than
// were received is bounded by them.
BYTE_LIST DecodeInbound(int mode, const char* bytes, std::size_t count);

// `message` as it is written to the client. In LengthPrefixed mode the length byte is the size cut
// to 8 bits.
std::string EncodeOutbound(int mode, const BYTE_LIST& message);

// The greeting of the interface called `name`; empty for a name without one.
std::string BannerOf(const std::string& name);

#endif  // TALP_NET_CLIENT_FRAMING_H_

#include "mqtt/lookup.h"

#include <netdb.h>

#include <cstring>

namespace mqtt {

LOOKUP_RESULT Lookup(const std::string& host, int port, bool isNumeric) {
  const addrinfo hints = {
      isNumeric ? AI_NUMERICHOST : 0, AF_UNSPEC, SOCK_STREAM, 0, 0, nullptr, nullptr, nullptr};
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (error != 0) return {{}, gai_strerror(error)};
  LOOKUP_RESULT result;
  for (const addrinfo* at = found; at != nullptr; at = at->ai_next) {
    ADDRESS address{{}, at->ai_addrlen, {}};
    std::memcpy(&address.bytes, at->ai_addr, at->ai_addrlen);
    char text[NI_MAXHOST] = "";
    getnameinfo(at->ai_addr, at->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    address.text = text;
    result.addresses.push_back(address);
  }
  freeaddrinfo(found);
  return result;
}

}  // namespace mqtt

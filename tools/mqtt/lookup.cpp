#include "mqtt/lookup.h"

#include <netdb.h>

#include <cstring>

namespace mqtt {

namespace {

std::string TextOf(const void* address, socklen_t size) {
  char text[NI_MAXHOST] = "";
  getnameinfo(static_cast<const sockaddr*>(address), size, text, sizeof text, nullptr, 0,
              NI_NUMERICHOST);
  return text;
}

}  // namespace

LOOKUP_RESULT Lookup(const std::string& host, int port, bool isNumeric) {
  const addrinfo hints = {
      isNumeric ? AI_NUMERICHOST : 0, AF_UNSPEC, SOCK_STREAM, 0, 0, nullptr, nullptr, nullptr};
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (error != 0) return {{}, gai_strerror(error)};
  LOOKUP_RESULT result;
  for (const addrinfo* at = found; at != nullptr; at = at->ai_next) {
    ADDRESS address{{}, at->ai_addrlen, TextOf(at->ai_addr, at->ai_addrlen)};
    std::memcpy(&address.bytes, at->ai_addr, at->ai_addrlen);
    result.addresses.push_back(address);
  }
  freeaddrinfo(found);
  return result;
}

std::string PeerOf(int socket) {
  sockaddr_storage peer{};
  socklen_t size = sizeof peer;
  void* const bytes = &peer;
  if (getpeername(socket, static_cast<sockaddr*>(bytes), &size) != 0) return {};
  return TextOf(&peer, size);
}

}  // namespace mqtt

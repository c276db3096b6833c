#include "mqtt/line_link.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "net/client_framing.h"

namespace mqtt {

namespace {

// talp takes for one message what one read yields, and a read takes kClientReadSize bytes wherever
// a line ends in them. No line is cut in two if talp, which reads every 5 ms or sooner, also on a
// busy machine, has read what was sent before more than that wait for it.
constexpr milliseconds kReadTime(100);

constexpr std::size_t kLongestLine = 4096;
constexpr seconds kConnectTime(5);

// A host that is gone without a word is found out within a minute.
constexpr int kSocketOptions[][3] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                                     {IPPROTO_TCP, TCP_KEEPIDLE, 15},
                                     {IPPROTO_TCP, TCP_KEEPINTVL, 5}};

}  // namespace

LINE_LINK::LINE_LINK(const std::string& name, std::string host,
                     const INTERFACE_DESCRIPTOR& settings, seconds longestPause)
    : ATTEMPTS(name + " " + host + ":" + std::to_string(settings.port), longestPause),
      host_(std::move(host)),
      settings_(settings) {}

LINES LINE_LINK::Run(bool wanted) {
  if (!socket_.IsOpen()) Connect(wanted);
  if (!socket_.IsOpen()) return {};
  if (!Works() && Age() > kConnectTime && !IsConnected()) {
    Lose("no answer");
    return {};
  }
  // talp greets 3 seconds after it listens, if nobody else is being served. The connection waits
  // its turn: to connect anew would not bring it nearer.
  if (!Works() && Age() > seconds(6)) {
    Report("no greeting, so another client is being served; waiting");
  }
  char bytes[4096];
  const ssize_t count = recv(socket_.Number(), bytes, sizeof bytes, 0);
  if (count < 0 && errno == EAGAIN) return {};
  if (count <= 0) {
    Lose(count == 0 ? "closed by talp" : std::generic_category().message(errno));
    return {};
  }
  received_.append(bytes, static_cast<std::size_t>(count));
  return Cut();
}

bool LINE_LINK::Send(const LINES& lines) {
  std::string bytes;
  for (const std::string& line : lines) bytes += line + settings_.inpSeparator;
  if (CLOCK::now() >= allRead_) unread_ = 0;
  if (!socket_.IsOpen() || unread_ + bytes.size() > kClientReadSize) return false;
  unread_ += bytes.size();
  allRead_ = CLOCK::now() + kReadTime;
  const ssize_t sent = send(socket_.Number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (sent == static_cast<ssize_t>(bytes.size())) return true;
  Close("talp does not read");
  return false;
}

int LINE_LINK::Pause() const {
  const auto left = std::chrono::ceil<milliseconds>(allRead_ - CLOCK::now());
  return static_cast<int>(std::clamp(left, milliseconds(1), kReadTime).count());
}

void LINE_LINK::Close(const std::string& trouble) {
  socket_.Close();
  received_.clear();
  addresses_.clear();
  Failed(trouble + Place());
}

void LINE_LINK::Leave() {
  socket_.Close();
  received_.clear();
  addresses_.clear();
  Ended();
}

void LINE_LINK::Connect(bool wanted) {
  if (!lookup_.IsBusy() && addresses_.empty()) {
    if (!wanted || !IsDue()) return;
    Begin();
    addresses_ = Lookup(host_, settings_.port, true).addresses;
    if (addresses_.empty()) {
      lookup_.Start([host = host_, port = settings_.port] { return Lookup(host, port, false); });
    }
  }
  if (std::optional<LOOKUP_RESULT> found = lookup_.Take()) {
    if (!found->trouble.empty()) return Failed(found->trouble);
    addresses_ = found->addresses;
    std::reverse(addresses_.begin(), addresses_.end());
  }
  if (addresses_.empty()) return;
  const ADDRESS address = addresses_.back();
  addresses_.pop_back();
  Open(address);
}

void LINE_LINK::Open(const ADDRESS& address) {
  Begin();
  address_ = address.text;
  constexpr int kType = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
  socket_ = FILE_DESCRIPTOR(socket(address.bytes.ss_family, kType, 0));
  if (!socket_.IsOpen()) return Lose(std::generic_category().message(errno));
  for (const auto& [level, name, value] : kSocketOptions) {
    setsockopt(socket_.Number(), level, name, &value, sizeof value);
  }
  // What comes of it the first read finds.
  const void* const bytes = &address.bytes;
  connect(socket_.Number(), static_cast<const sockaddr*>(bytes), address.size);
}

void LINE_LINK::Lose(const std::string& trouble) {
  if (Works() || addresses_.empty() || IsConnected()) return Close(trouble);
  Report(trouble + Place());
  socket_.Close();
}

// talp ends each line with its separator and one more carriage return, and its greeting with CR LF
// whatever the separator is. So both end a line, and other characters of the separator go too.
LINES LINE_LINK::Cut() {
  LINES lines;
  std::string separator = settings_.outSeparator;
  separator.erase(separator.find_last_not_of("\r\n") + 1);
  std::size_t start = 0;
  for (std::size_t end = 0; (end = received_.find_first_of("\r\n", start)) != std::string::npos;
       start = end + 1) {
    std::string line = received_.substr(start, end - start);
    const std::size_t textEnd = line.size() - std::min(separator.size(), line.size());
    if (line.substr(textEnd) == separator) line.erase(textEnd);
    if (!line.empty()) lines.push_back(std::move(line));
  }
  received_.erase(0, start);
  if (received_.size() > kLongestLine) received_.clear();
  return lines;
}

std::string LINE_LINK::Place() const {
  return address_.empty() || address_ == host_ ? "" : " (" + address_ + ")";
}

}  // namespace mqtt

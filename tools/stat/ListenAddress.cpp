#include "ListenAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Beacon/UniqueFd.h"

namespace Stat {

namespace {

// Connections waiting to be accepted; the server accepts as fast as they
// come, so this only matters for bursts.
constexpr int kListenBacklog = 256;

// Text from the command line quoted in an error line: control characters
// become '?', so nothing raw reaches a terminal.
std::string controlsMasked(const std::string& text) {
  std::string shown;
  shown.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    shown.push_back(byte < 0x20 || byte == 0x7f ? '?' : c);
  }
  return shown;
}

bool parsePort(const std::string& text, std::uint16_t& port) {
  if (text.empty() || text.size() > 5) {
    return false;
  }
  unsigned value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value > 65535) {
    return false;
  }
  port = static_cast<std::uint16_t>(value);
  return true;
}

bool plainHostChar(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte > 0x20 && byte != 0x7f && c != ':' && c != '[' && c != ']' && c != '/';
}

bool isIpv6Literal(const std::string& host) { return host.find(':') != std::string::npos; }

// The host and port text of "[IPv6]:PORT"; false with the reason.
bool splitBracketed(const std::string& text, std::string& host, std::string& portText, std::string& why) {
  const std::size_t close = text.find(']');
  if (close == std::string::npos) {
    why = "missing ']' after the IPv6 address";
    return false;
  }
  host = text.substr(1, close - 1);
  in6_addr probe{};
  if (host.empty() || ::inet_pton(AF_INET6, host.c_str(), &probe) != 1) {
    why = "not an IPv6 address between '[' and ']'";
    return false;
  }
  if (close + 1 >= text.size() || text[close + 1] != ':') {
    why = "expected ':PORT' after ']'";
    return false;
  }
  portText = text.substr(close + 2);
  return true;
}

// The host and port text of "ADDR:PORT" or ":PORT"; false with the reason.
bool splitPlain(const std::string& text, std::string& host, std::string& portText, std::string& why) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    why = "expected ADDR:PORT or [IPv6]:PORT";
    return false;
  }
  host = text.substr(0, colon);
  portText = text.substr(colon + 1);
  for (const char c : host) {
    if (!plainHostChar(c)) {
      why = c == ':' ? "an IPv6 address goes between '[' and ']'" : "bad character in the address";
      return false;
    }
  }
  if (host.empty()) {
    host = "0.0.0.0";
  }
  return true;
}

// A socket of `info`'s family bound to its address and listening, or -1
// with errno set.
int bindAndListen(const addrinfo& info) {
  Beacon::UniqueFd fd(::socket(info.ai_family, info.ai_socktype | SOCK_CLOEXEC, info.ai_protocol));
  if (!fd.valid()) {
    return -1;
  }
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (::bind(fd.get(), info.ai_addr, info.ai_addrlen) != 0 || ::listen(fd.get(), kListenBacklog) != 0) {
    // Closed here, not on return, so that the caller reads the failed call's errno.
    const int cause = errno;
    fd.reset();
    errno = cause;
    return -1;
  }
  return fd.release();  // the caller owns it
}

std::uint16_t boundPort(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return 0;
  }
  if (address.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
  }
  return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

}  // namespace

bool parseListenAddress(const std::string& text, ListenAddress& out, std::string& error) {
  std::string host;
  std::string portText;
  std::string why;
  const bool split = !text.empty() && text.front() == '[' ? splitBracketed(text, host, portText, why)
                                                          : splitPlain(text, host, portText, why);
  std::uint16_t port = 0;
  if (split && !parsePort(portText, port)) {
    why = "the port must be a number from 0 to 65535";
  }
  if (!why.empty()) {
    error = "invalid listen address '" + controlsMasked(text) + "': " + why;
    return false;
  }
  out.host = host;
  out.port = port;
  return true;
}

std::string formatListenAddress(const ListenAddress& where) {
  const std::string port = std::to_string(where.port);
  if (isIpv6Literal(where.host)) {
    return "[" + where.host + "]:" + port;
  }
  return where.host + ":" + port;
}

int openListeningSocket(const ListenAddress& where, std::uint16_t& port, std::string& error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(where.port);
  const int resolved = ::getaddrinfo(where.host.c_str(), service.c_str(), &hints, &found);
  if (resolved != 0) {
    error = "cannot resolve " + where.host + ": " +
            (resolved == EAI_SYSTEM ? std::strerror(errno) : ::gai_strerror(resolved));
    return -1;
  }
  int fd = -1;
  int cause = 0;
  for (const addrinfo* info = found; info != nullptr && fd < 0; info = info->ai_next) {
    fd = bindAndListen(*info);
    cause = errno;
  }
  ::freeaddrinfo(found);
  if (fd < 0) {
    error = std::strerror(cause);
    return -1;
  }
  port = boundPort(fd);
  return fd;
}

}  // namespace Stat

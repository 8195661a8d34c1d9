// Where heron-stat --listen listens: the address as the user writes it, and
// the listening socket made from it.
#pragma once

#include <cstdint>
#include <string>

namespace Stat {

struct ListenAddress {
  std::string host;  // as given; an IPv6 literal without its brackets
  std::uint16_t port = 0;
};

// "ADDR:PORT" (ADDR an IPv4 address or a host name), "[IPv6]:PORT", or
// ":PORT" for every IPv4 address (0.0.0.0). PORT is 0..65535; 0 lets the
// system pick a free port. False with a one-line `error` when invalid.
bool parseListenAddress(const std::string& text, ListenAddress& out, std::string& error);

// "HOST:PORT", or "[HOST]:PORT" for an IPv6 literal: the form
// parseListenAddress reads back.
std::string formatListenAddress(const ListenAddress& where);

// A TCP socket bound to `where` and listening (close-on-exec), or -1 with
// the reason in `error` (a host name that does not resolve says so). `port`
// receives the bound port: the chosen one when `where` asks for port 0.
int openListeningSocket(const ListenAddress& where, std::uint16_t& port, std::string& error);

}  // namespace Stat

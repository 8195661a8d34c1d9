// heron-stat's HTTP endpoint: GET /metrics (a fresh sample in the Prometheus
// text format on every scrape) and GET /healthz.
//
// Behaviour a client can rely on:
// - GET and HEAD on /metrics and /healthz; HEAD answers the same status and
//   headers as GET without the body (so HEAD /metrics also takes a sample).
// - Any other method on those two paths, known to HTTP or not: 405 with
//   "Allow: GET, HEAD".
// - Any other path: 404, whatever the method.
// - A request line longer than 8 KiB: 414. A header line longer than 8 KiB:
//   431 (and so is a request that stalls halfway through its headers past
//   the read timeout: cpp-httplib does not tell the two apart). A malformed
//   request line, or a request line that stalls past the read timeout: 400.
//   cpp-httplib
//   bounds each header line but not their number: a client that keeps
//   sending short header lines, each within the read timeout, holds one
//   worker and the memory of those lines until it stops. Listen on a
//   loopback or otherwise trusted address (the shipped unit listens on
//   127.0.0.1).
// - A bounded pool of worker threads serves the connections, with read and
//   write timeouts and a bounded keep-alive, so a client that stalls halfway
//   through a request holds one worker for at most the read timeout and the
//   others keep being answered.
// - metrics() runs on one thread of the server's own, one call at a time,
//   whichever worker serves the scrape: the memory a sample needs is
//   touched once and then reused, and the resident size stays flat.
// - SIGTERM and SIGINT stop the server cleanly: the listening socket is
//   closed, requests in progress finish, serve() returns 0. serve() blocks
//   both signals (and SIGPIPE, so a client that hangs up mid-answer costs an
//   error return, not the process) in the calling thread while it runs and
//   receives them through a signalfd; call it before starting other threads,
//   or with those signals blocked in them, so that no other thread takes the
//   signal with its default action. It also sets the process's allocator
//   to two arenas and a fixed mapping threshold, so that memory one request
//   needed goes back to the system and a server that runs for months stays
//   at its size.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
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

// Binds; once bound prints "listening on HOST:PORT\n" to `out` and flushes
// (port 0: the chosen port), then serves until SIGTERM or SIGINT. Returns 0
// after a clean stop, 1 when it cannot bind, cannot print the line, or the
// listening socket fails (one line on `err`).
int serve(const ListenAddress& where, const std::function<std::string()>& metrics, std::ostream& out,
          std::ostream& err);

}  // namespace Stat

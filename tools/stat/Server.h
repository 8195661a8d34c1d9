// heron-stat's HTTP endpoint: GET /metrics (a fresh sample in the Prometheus
// text format on every scrape), GET /healthz, and the live page: GET / (with
// /app.js and /style.css, built into the binary) over GET /api/v1/sample.
//
// Behaviour a client can rely on:
// - GET and HEAD on those paths; HEAD answers the same status and headers
//   as GET without the body (so HEAD /metrics also takes a sample). The
//   query string is ignored. /metrics answers with
//   "text/plain; version=0.0.4", /api/v1/sample with "application/json"
//   (Cache-Control: no-store, and X-Heron-Refresh-Seconds: how often the
//   page fetches it), the page's files with their types (Cache-Control:
//   no-cache), anything else with "text/plain". Every answer carries a
//   Content-Security-Policy that lets a page run only its own script and
//   style sheet and fetch only from here, "X-Content-Type-Options: nosniff"
//   and "Referrer-Policy: no-referrer".
// - Any other method on those paths, known to HTTP or not: 405 with
//   "Allow: GET, HEAD". Any other path: 404, whatever the method. An
//   answer to a method other than GET or HEAD closes the connection (its
//   body is never read).
// - A request line or header section larger than a connection's 16 KiB
//   buffer: 414 or 431, then the connection is closed; what the client
//   still sends is read and discarded for up to 2 s (64 such connections at
//   most), so that the answer is not destroyed by a reset. A malformed
//   Content-Length: 400 or 413 (the library sends that status line and its
//   headers twice), then the connection is closed.
// - Connections are served by one event loop: an idle or slow connection
//   costs a small buffer, never a thread. A connection silent for 10 s is
//   closed, and so is one whose request headers are not complete 10 s
//   after it opened or after its previous answer (one byte a second does
//   not keep it open). Beyond 384 open connections every request is
//   answered 503 with "Connection: close"; beyond 512 new connections are
//   closed at once. Memory and threads stay bounded whatever clients do.
// - Keep-alive and pipelining: requests on one connection are answered in
//   order; an answer that closes the connection says "Connection: close".
//   Answers are sent without delay: the library sets TCP_NODELAY, so a
//   scrape on a kept-alive connection takes no longer than on a new one.
// - The endpoints' callbacks run on one thread of the server's own, one
//   call at a time, in the order the requests were read; the event loop
//   goes on meanwhile. An exception from a callback answers 500.
// - SIGTERM and SIGINT stop the server within a fraction of a second,
//   whatever connections are held: the call in progress finishes, queued
//   requests are answered 503, every connection and the listening socket
//   are closed, serve() returns 0. serve() blocks both signals (and SIGPIPE)
//   in the calling thread and receives them through a signalfd; call it
//   before starting other threads, or with those signals blocked in them,
//   so that no other thread takes the signal with its default action.
#pragma once

#include <iosfwd>

#include "ListenAddress.h"
#include "Sampler.h"

namespace Stat {

// Binds; once bound prints "listening on HOST:PORT\n" to `out` and flushes
// (port 0: the chosen port), then serves until SIGTERM or SIGINT. Returns 0
// after a clean stop, 1 when it cannot bind (a host name that does not
// resolve included), cannot start the server or cannot print the line (one
// line on `err`).
int serve(const ListenAddress& where, const Endpoints& endpoints, std::ostream& out, std::ostream& err);

}  // namespace Stat

// heron-stat's HTTP server under test: serve() runs in a forked child with
// a fake sample, and the tests talk to it over real sockets. Every read
// waits with a deadline.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Server.h"
#include "support/Child.h"

namespace ServerTest {

using Clock = std::chrono::steady_clock;

constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";

// /metrics answers the fake sample: lines counting the samples taken, the
// samples that found another one in progress, and the threads that took
// them. /healthz answers "ok".
Stat::Endpoints fakeEndpoints();

// Reads what is available on `fd` into `into` until `done` says so, EOF, or
// the deadline; whether `done` said so.
bool readUntil(int fd, std::string& into, Clock::time_point deadline,
               const std::function<bool(const std::string&)>& done);
// Everything `fd` sends until it closes or `seconds` pass.
std::string readAll(int fd, int seconds);

// serve() in a child process; stopped with SIGKILL if a test leaves it
// running.
class ServerChild {
 public:
  explicit ServerChild(const std::string& listen, const Stat::Endpoints& endpoints = fakeEndpoints());

  // The first line on standard output, waited for up to 10 s.
  std::string firstLine();
  // The port from "listening on 127.0.0.1:PORT", or 0.
  int port();
  // Exit status (or 128 + signal) within `seconds`; -1 when it had to be
  // killed.
  int wait(int seconds);
  // Standard error: all of it once wait() has returned, else what came so far.
  std::string errText() const { return child_.err(); }
  pid_t pid() const { return child_.pid(); }

 private:
  HeronTest::Child child_;
};

// The server's tests: each may start one server on a loopback port that
// the kernel chooses.
class StatServerTest : public ::testing::Test {
 protected:
  // Starts the server; the port it says it listens on, or 0.
  int start(const Stat::Endpoints& endpoints = fakeEndpoints()) {
    server_ = std::make_unique<ServerChild>("127.0.0.1:0", endpoints);
    return server_->port();
  }
  ServerChild& server() { return *server_; }

 private:
  std::unique_ptr<ServerChild> server_;
};

// A connection to 127.0.0.1:port, or -1.
int connectTo(int port);
bool sendAll(int fd, const std::string& bytes);
// A connection that has sent `bytes`, or -1.
int connectAndSend(int port, const std::string& bytes);

struct Response {
  int status = 0;
  std::string head;  // status line and header lines
  std::string body;
  std::string header(const std::string& name) const;
};

// One response read from `fd`: the head, then Content-Length bytes of body
// (none for HEAD).
Response readResponse(int fd, bool head = false);
// One request on a fresh connection.
Response request(int port, const std::string& method, const std::string& target, const std::string& extra = "");

std::size_t countOf(const std::string& text, const std::string& what);
// `count` connections that sent `start`, or fewer when one fails.
std::vector<int> holdConnections(int port, int count, const std::string& start);
// GET /healthz on fresh connections until it answers `status` or the
// deadline passes; the last answer.
Response healthUntil(int port, int status, Clock::time_point deadline);

}  // namespace ServerTest

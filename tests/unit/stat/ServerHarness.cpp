#include "ServerHarness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <thread>

namespace ServerTest {

namespace {

// Counts its calls, the calls that overlapped another, and the threads
// that made them. The short pause makes an overlap likely were samples
// taken concurrently.
std::string fakeSample() {
  static std::mutex threadsMutex;
  static std::vector<std::thread::id> threads;
  std::size_t threadCount = 0;
  {
    const std::lock_guard<std::mutex> lock(threadsMutex);
    if (std::find(threads.begin(), threads.end(), std::this_thread::get_id()) == threads.end()) {
      threads.push_back(std::this_thread::get_id());
    }
    threadCount = threads.size();
  }
  static std::atomic<int> inside{0};
  static std::atomic<int> overlaps{0};
  static std::atomic<int> taken{0};
  if (inside.fetch_add(1) != 0) {
    overlaps.fetch_add(1);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const int number = taken.fetch_add(1) + 1;
  inside.fetch_sub(1);
  return "# TYPE fake_samples_total counter\nfake_samples_total " + std::to_string(number) +
         "\n# TYPE fake_overlaps gauge\nfake_overlaps " + std::to_string(overlaps.load()) +
         "\n# TYPE fake_sampling_threads gauge\nfake_sampling_threads " + std::to_string(threadCount) + "\n";
}

bool endOfHead(const std::string& text) { return text.find("\r\n\r\n") != std::string::npos; }

}  // namespace

Stat::Endpoints fakeEndpoints() {
  Stat::Endpoints endpoints;
  endpoints.metrics = [] { return Stat::Answer{200, fakeSample()}; };
  endpoints.health = [] { return Stat::Answer{200, "ok\n"}; };
  return endpoints;
}

bool readUntil(int fd, std::string& into, Clock::time_point deadline,
               const std::function<bool(const std::string&)>& done) {
  char buffer[65536];
  while (!done(into)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      return false;
    }
    pollfd p{fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    if (ready <= 0) {
      return false;
    }
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return done(into);
    }
    into.append(buffer, static_cast<std::size_t>(got));
  }
  return true;
}

std::string readAll(int fd, int seconds) {
  std::string raw;
  readUntil(fd, raw, Clock::now() + std::chrono::seconds(seconds), [](const std::string&) { return false; });
  return raw;
}

namespace {

// The body of the server's process: serve() until a signal stops it.
int serveOn(const std::string& listen, const Stat::Endpoints& endpoints) {
  Stat::ListenAddress where;
  std::string error;
  if (!Stat::parseListenAddress(listen, where, error)) {
    std::cerr << error << '\n';
    return 2;
  }
  const int status = Stat::serve(where, endpoints, std::cout, std::cerr);
  std::cout.flush();
  std::cerr.flush();
  return status;
}

}  // namespace

ServerChild::ServerChild(const std::string& listen, const Stat::Endpoints& endpoints)
    : child_([&listen, &endpoints] { return serveOn(listen, endpoints); }) {}

std::string ServerChild::firstLine() {
  child_.waitForLines(1, 10);
  const std::string& out = child_.out();
  return out.substr(0, out.find('\n'));
}

int ServerChild::port() {
  const std::string line = firstLine();
  const std::string prefix = "listening on 127.0.0.1:";
  if (line.compare(0, prefix.size(), prefix) != 0) {
    return 0;
  }
  return std::atoi(line.c_str() + prefix.size());
}

int ServerChild::wait(int seconds) {
  const HeronTest::RunResult result = child_.wait(seconds);
  if (result.timedOut) {
    return -1;
  }
  return result.signal != 0 ? 128 + result.signal : result.status;
}

int connectTo(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool sendAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) {
      return false;
    }
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

int connectAndSend(int port, const std::string& bytes) {
  const int fd = connectTo(port);
  if (fd >= 0 && !sendAll(fd, bytes)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

std::string Response::header(const std::string& name) const {
  const std::string key = "\r\n" + name + ": ";
  const std::size_t at = head.find(key);
  if (at == std::string::npos) {
    return "";
  }
  const std::size_t start = at + key.size();
  return head.substr(start, head.find("\r\n", start) - start);
}

Response readResponse(int fd, bool head) {
  std::string raw;
  readUntil(fd, raw, Clock::now() + std::chrono::seconds(15), endOfHead);
  Response response;
  const std::size_t end = raw.find("\r\n\r\n");
  if (end == std::string::npos || raw.compare(0, 9, "HTTP/1.1 ") != 0) {
    return response;
  }
  response.head = raw.substr(0, end);
  response.status = std::atoi(raw.c_str() + 9);
  const std::size_t length = head ? 0 : std::strtoul(response.header("Content-Length").c_str(), nullptr, 10);
  std::string rest = raw.substr(end + 4);
  readUntil(fd, rest, Clock::now() + std::chrono::seconds(15),
            [length](const std::string& text) { return text.size() >= length; });
  response.body = rest;
  return response;
}

Response request(int port, const std::string& method, const std::string& target, const std::string& extra) {
  const int fd = connectTo(port);
  if (fd < 0) {
    return {};
  }
  sendAll(fd, method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + extra + "\r\n");
  Response response = readResponse(fd, method == "HEAD");
  ::close(fd);
  return response;
}

std::size_t countOf(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++count;
  }
  return count;
}

std::vector<int> holdConnections(int port, int count, const std::string& start) {
  std::vector<int> held;
  for (int i = 0; i < count; ++i) {
    const int fd = connectAndSend(port, start);
    if (fd < 0) {
      break;
    }
    held.push_back(fd);
  }
  return held;
}

Response healthUntil(int port, int status, Clock::time_point deadline) {
  Response answer;
  do {
    answer = request(port, "GET", "/healthz");
  } while (answer.status != status && Clock::now() < deadline);
  return answer;
}

}  // namespace ServerTest

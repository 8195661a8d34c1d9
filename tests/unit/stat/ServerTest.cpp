// heron-stat's HTTP server: serve() runs in a child process with a fake
// sample and is driven over real sockets.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Page.h"
#include "Server.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";

// The fake sample: a counter of samples taken, of samples that found
// another one in progress, and of the threads that took them.
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

// Reads what is available on `fd` into `into` until `done` says so, EOF, or
// the deadline.
template <typename Done>
bool readUntil(int fd, std::string& into, Clock::time_point deadline, Done done) {
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

Stat::Endpoints fakeEndpoints() {
  Stat::Endpoints endpoints;
  endpoints.metrics = [] { return Stat::Answer{200, fakeSample()}; };
  endpoints.health = [] { return Stat::Answer{200, "ok\n"}; };
  return endpoints;
}

// serve() in a child process; stopped with SIGKILL if a test leaves it
// running.
class ServerChild {
 public:
  explicit ServerChild(const std::string& listen, const Stat::Endpoints& endpoints = fakeEndpoints()) {
    int out[2];
    int err[2];
    if (::pipe(out) != 0 || ::pipe(err) != 0) {
      return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out[1], 1);
      ::dup2(err[1], 2);
      ::close(out[0]);
      ::close(err[0]);
      Stat::ListenAddress where;
      std::string error;
      if (!Stat::parseListenAddress(listen, where, error)) {
        std::cerr << error << '\n';
        ::_exit(2);
      }
      const int status = Stat::serve(where, endpoints, std::cout, std::cerr);
      std::cout.flush();
      std::cerr.flush();
      ::_exit(status);
    }
    ::close(out[1]);
    ::close(err[1]);
    outFd_ = out[0];
    errFd_ = err[0];
  }
  ~ServerChild() {
    if (pid_ > 0 && !reaped_) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
    if (outFd_ >= 0) {
      ::close(outFd_);
    }
    if (errFd_ >= 0) {
      ::close(errFd_);
    }
  }
  ServerChild(const ServerChild&) = delete;
  ServerChild& operator=(const ServerChild&) = delete;

  // The first line on standard output, waited for up to 10 s.
  std::string firstLine() {
    readUntil(outFd_, out_, Clock::now() + std::chrono::seconds(10),
              [](const std::string& text) { return text.find('\n') != std::string::npos; });
    return out_.substr(0, out_.find('\n'));
  }

  // The port from "listening on 127.0.0.1:PORT", or 0.
  int port() {
    const std::string line = firstLine();
    const std::string prefix = "listening on 127.0.0.1:";
    if (line.compare(0, prefix.size(), prefix) != 0) {
      return 0;
    }
    return std::atoi(line.c_str() + prefix.size());
  }

  // Exit status (or 128 + signal) within `seconds`, -1 when still running.
  int wait(int seconds) {
    const auto deadline = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < deadline) {
      int status = 0;
      const pid_t done = ::waitpid(pid_, &status, WNOHANG);
      if (done == pid_) {
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
  }

  std::string errText() {
    std::string text;
    readUntil(errFd_, text, Clock::now() + std::chrono::seconds(5), [](const std::string&) { return false; });
    return text;
  }

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::string out_;
  bool reaped_ = false;
};

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

struct Response {
  int status = 0;
  std::string head;  // status line and header lines
  std::string body;
  std::string header(const std::string& name) const {
    const std::string key = "\r\n" + name + ": ";
    const std::size_t at = head.find(key);
    if (at == std::string::npos) {
      return "";
    }
    const std::size_t start = at + key.size();
    return head.substr(start, head.find("\r\n", start) - start);
  }
};

// One response read from `fd`: the head, then Content-Length bytes of body
// (none for HEAD).
Response readResponse(int fd, bool head = false) {
  std::string raw;
  readUntil(fd, raw, Clock::now() + std::chrono::seconds(15),
            [](const std::string& text) { return text.find("\r\n\r\n") != std::string::npos; });
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

// One request on a fresh connection.
Response request(int port, const std::string& method, const std::string& target, const std::string& extra = "") {
  const int fd = connectTo(port);
  if (fd < 0) {
    return {};
  }
  sendAll(fd, method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + extra + "\r\n");
  Response response = readResponse(fd, method == "HEAD");
  ::close(fd);
  return response;
}

TEST(StatListenAddressTest, ReadsAddressAndPort) {
  Stat::ListenAddress where;
  std::string error;
  ASSERT_TRUE(Stat::parseListenAddress("127.0.0.1:9464", where, error)) << error;
  EXPECT_EQ(where.host, "127.0.0.1");
  EXPECT_EQ(where.port, 9464);
  ASSERT_TRUE(Stat::parseListenAddress("[::1]:0", where, error)) << error;
  EXPECT_EQ(where.host, "::1");
  EXPECT_EQ(where.port, 0);
  ASSERT_TRUE(Stat::parseListenAddress("localhost:65535", where, error)) << error;
  EXPECT_EQ(where.host, "localhost");
  EXPECT_EQ(where.port, 65535);
}

TEST(StatListenAddressTest, EmptyAddressMeansEveryIpv4Address) {
  Stat::ListenAddress where;
  std::string error;
  ASSERT_TRUE(Stat::parseListenAddress(":9464", where, error)) << error;
  EXPECT_EQ(where.host, "0.0.0.0");
}

TEST(StatListenAddressTest, FormatReadsBack) {
  EXPECT_EQ(Stat::formatListenAddress({"::1", 80}), "[::1]:80");
  EXPECT_EQ(Stat::formatListenAddress({"127.0.0.1", 9464}), "127.0.0.1:9464");
}

TEST(StatListenAddressTest, RejectsMalformedWithOneLine) {
  const char* const bad[] = {"",
                             "9464",
                             "127.0.0.1",
                             "127.0.0.1:",
                             "127.0.0.1:65536",
                             "host:-1",
                             "host:+80",
                             "host:80x",
                             "::1:80",
                             "[::1]80",
                             "[::1",
                             "[nothex]:80",
                             "[]:80",
                             "a b:80",
                             "a\nb:80",
                             "host:99999999999999999999"};
  for (const char* text : bad) {
    Stat::ListenAddress where;
    std::string error;
    EXPECT_FALSE(Stat::parseListenAddress(text, where, error)) << text;
    EXPECT_FALSE(error.empty()) << text;
    EXPECT_EQ(error.find('\n'), std::string::npos) << text;
  }
}

TEST(StatServerTest, PortZeroPrintsTheChosenPort) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST(StatServerTest, MetricsAnswersTheSampleAsPrometheusText) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  const Response first = request(port, "GET", "/metrics");
  EXPECT_EQ(first.status, 200);
  EXPECT_EQ(first.header("Content-Type"), kMetricsType);
  EXPECT_NE(first.body.find("\nfake_samples_total 1\n"), std::string::npos) << first.body;
  // Every scrape takes a fresh sample.
  const Response second = request(port, "GET", "/metrics?ignored=1");
  EXPECT_NE(second.body.find("\nfake_samples_total 2\n"), std::string::npos) << second.body;
}

TEST(StatServerTest, HealthzSaysOk) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  const Response response = request(port, "GET", "/healthz");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "ok\n");
}

TEST(StatServerTest, HeadAnswersHeadersWithoutBody) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  const int fd = connectTo(port);
  ASSERT_GE(fd, 0);
  // A HEAD and then a GET on one connection: were a body sent after the
  // HEAD, it would be read as the GET's status line.
  sendAll(fd, "HEAD /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  std::string raw;
  readUntil(fd, raw, Clock::now() + std::chrono::seconds(15),
            [](const std::string& text) { return text.find("\r\n\r\n") != std::string::npos; });
  const std::size_t headEnd = raw.find("\r\n\r\n");
  ASSERT_NE(headEnd, std::string::npos) << raw;
  Response head;
  head.head = raw.substr(0, headEnd);
  EXPECT_EQ(head.head.compare(0, 15, "HTTP/1.1 200 OK"), 0) << raw;
  EXPECT_EQ(head.header("Content-Type"), kMetricsType);
  EXPECT_NE(head.header("Content-Length"), "0");
  sendAll(fd, "GET /healthz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  readUntil(fd, raw, Clock::now() + std::chrono::seconds(15), [](const std::string&) { return false; });
  ::close(fd);
  const std::string next = raw.substr(headEnd + 4);
  EXPECT_EQ(next.compare(0, 15, "HTTP/1.1 200 OK"), 0) << raw;
  EXPECT_EQ(next.size() >= 3 ? next.substr(next.size() - 3) : next, "ok\n") << raw;
}

TEST(StatServerTest, UnknownPathIsNotFound) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  EXPECT_EQ(request(port, "GET", "/nothing").status, 404);
  EXPECT_EQ(request(port, "GET", "/metrics/x").status, 404);
  EXPECT_EQ(request(port, "GET", "/index.html").status, 404);
  EXPECT_EQ(request(port, "GET", "/api/v1/sample/").status, 404);
  EXPECT_EQ(request(port, "GET", "//app.js").status, 404);
  EXPECT_EQ(request(port, "GET", "/Metrics").status, 404);
  EXPECT_EQ(request(port, "POST", "/nothing", "Content-Length: 0\r\n").status, 404);
}

TEST(StatServerTest, OtherMethodsAreNotAllowed) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  for (const char* path : {"/metrics", "/healthz"}) {
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS"}) {
      const Response response = request(port, method, path, "Content-Length: 3\r\n\r\nabc");
      EXPECT_EQ(response.status, 405) << method << ' ' << path;
      EXPECT_EQ(response.header("Allow"), "GET, HEAD") << method << ' ' << path;
    }
  }
}

TEST(StatServerTest, UnknownMethodsAreNotAllowedEither) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  for (const char* method : {"BREW", "get", "TRACE", "CONNECT"}) {
    const Response response = request(port, method, "/metrics");
    EXPECT_EQ(response.status, 405) << method;
    EXPECT_EQ(response.header("Allow"), "GET, HEAD") << method;
    EXPECT_EQ(request(port, method, "/elsewhere").status, 404) << method;
  }
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST(StatServerTest, HugeRequestLineIsRefusedAndOthersStillAnswered) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  const Response refused = request(port, "GET", "/metrics?" + std::string(1 << 20, 'a'));
  EXPECT_TRUE(refused.status == 414 || refused.status == 431) << refused.status;
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST(StatServerTest, HugeHeaderIsRefused) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  const Response refused = request(port, "GET", "/metrics", "X-Big: " + std::string(1 << 20, 'a') + "\r\n");
  EXPECT_EQ(refused.status, 431);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST(StatServerTest, StalledClientDoesNotHoldUpOthersAndIsDropped) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  const int stalled = connectTo(port);
  ASSERT_GE(stalled, 0);
  sendAll(stalled, "GET /metrics HTTP/1.1\r\nHost: x\r\nX-Half: ");
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
  }
  // The read timeout ends the stalled connection: the server closes it.
  std::string rest;
  readUntil(stalled, rest, Clock::now() + std::chrono::seconds(20), [](const std::string&) { return false; });
  char probe = 0;
  EXPECT_EQ(::recv(stalled, &probe, 1, MSG_DONTWAIT), 0) << "still open after 20 s";
  ::close(stalled);
}

TEST(StatServerTest, SamplesAreTakenOneAtATime) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  std::vector<std::thread> clients;
  std::atomic<int> answered{0};
  for (int i = 0; i < 40; ++i) {
    clients.emplace_back([port, &answered] {
      if (request(port, "GET", "/metrics").status == 200) {
        answered.fetch_add(1);
      }
    });
  }
  for (auto& client : clients) {
    client.join();
  }
  EXPECT_EQ(answered.load(), 40);
  const Response last = request(port, "GET", "/metrics");
  EXPECT_NE(last.body.find("\nfake_samples_total 41\n"), std::string::npos) << last.body;
  EXPECT_NE(last.body.find("\nfake_overlaps 0\n"), std::string::npos) << last.body;
}

// Whichever worker serves a scrape, the sample is taken on one thread, so
// the memory a sample touches settles after the first scrapes.
TEST(StatServerTest, SamplesAreTakenOnOneThread) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  std::vector<std::thread> clients;
  clients.reserve(16);
  for (int i = 0; i < 16; ++i) {
    clients.emplace_back([port] { request(port, "GET", "/metrics"); });
  }
  for (auto& client : clients) {
    client.join();
  }
  const Response last = request(port, "GET", "/metrics");
  EXPECT_NE(last.body.find("\nfake_samples_total 17\n"), std::string::npos) << last.body;
  EXPECT_NE(last.body.find("\nfake_sampling_threads 1\n"), std::string::npos) << last.body;
}

TEST(StatServerTest, SigtermStopsCleanly) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
  ::kill(server.pid(), SIGTERM);
  EXPECT_EQ(server.wait(20), 0);
  EXPECT_EQ(server.errText(), "");
  EXPECT_LT(connectTo(port), 0) << "still listening";
}

TEST(StatServerTest, SigintStopsCleanly) {
  ServerChild server("127.0.0.1:0");
  ASSERT_GT(server.port(), 0);
  ::kill(server.pid(), SIGINT);
  EXPECT_EQ(server.wait(20), 0);
}

TEST(StatServerTest, SignalRightAfterListeningIsNotLost) {
  for (int i = 0; i < 5; ++i) {
    ServerChild server("127.0.0.1:0");
    ASSERT_FALSE(server.firstLine().empty());
    ::kill(server.pid(), SIGTERM);
    EXPECT_EQ(server.wait(20), 0);
  }
}

TEST(StatServerTest, SigtermWhileAClientStallsStillStops) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  const int stalled = connectTo(port);
  ASSERT_GE(stalled, 0);
  sendAll(stalled, "GET /metr");
  ::kill(server.pid(), SIGTERM);
  EXPECT_EQ(server.wait(20), 0);
  ::close(stalled);
}

TEST(StatServerTest, BusyPortFailsWithOneLine) {
  ServerChild first("127.0.0.1:0");
  const int port = first.port();
  ASSERT_GT(port, 0);
  ServerChild second("127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(second.wait(20), 1);
  const std::string err = second.errText();
  EXPECT_NE(err.find("cannot listen on 127.0.0.1:" + std::to_string(port)), std::string::npos) << err;
  EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
}

// Everything `fd` sends until it closes or `seconds` pass.
std::string readAll(int fd, int seconds) {
  std::string raw;
  readUntil(fd, raw, Clock::now() + std::chrono::seconds(seconds), [](const std::string&) { return false; });
  return raw;
}

std::size_t countOf(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++count;
  }
  return count;
}

// `count` connections that sent `start`, or fewer when one fails.
std::vector<int> holdConnections(int port, int count, const std::string& start) {
  std::vector<int> held;
  for (int i = 0; i < count; ++i) {
    const int fd = connectTo(port);
    if (fd < 0) {
      break;
    }
    sendAll(fd, start);
    held.push_back(fd);
  }
  return held;
}

// GET /healthz on fresh connections until it answers `status` or the
// deadline passes; the last answer.
Response healthUntil(int port, int status, Clock::time_point deadline) {
  Response answer;
  do {
    answer = request(port, "GET", "/healthz");
  } while (answer.status != status && Clock::now() < deadline);
  return answer;
}

TEST(StatServerTest, CallbackExceptionAnswers500) {
  Stat::Endpoints endpoints = fakeEndpoints();
  endpoints.metrics = []() -> Stat::Answer { throw std::runtime_error("no sample"); };
  ServerChild server("127.0.0.1:0", endpoints);
  const int port = server.port();
  ASSERT_GT(port, 0);
  EXPECT_EQ(request(port, "GET", "/metrics").status, 500);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST(StatServerTest, HealthAnswersWhatItsCallbackSays) {
  Stat::Endpoints endpoints = fakeEndpoints();
  endpoints.health = [] { return Stat::Answer{503, "collection root missing\n"}; };
  ServerChild server("127.0.0.1:0", endpoints);
  const int port = server.port();
  ASSERT_GT(port, 0);
  const Response response = request(port, "GET", "/healthz");
  EXPECT_EQ(response.status, 503);
  EXPECT_EQ(response.body, "collection root missing\n");
  EXPECT_EQ(response.header("Content-Type"), "text/plain; charset=utf-8");
}

TEST(StatServerTest, PipelinedRequestsAreAnsweredInOrder) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  const int fd = connectTo(port);
  ASSERT_GE(fd, 0);
  const std::string get = "GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n";
  sendAll(fd, get + "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n" + "GET /nowhere HTTP/1.1\r\nHost: x\r\n\r\n" + get +
                  "GET /healthz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  const std::string raw = readAll(fd, 15);
  ::close(fd);
  EXPECT_EQ(countOf(raw, "HTTP/1.1 "), 5u) << raw;
  const std::size_t first = raw.find("HTTP/1.1 200 OK");
  const std::size_t metrics = raw.find("fake_samples_total 1\n");
  const std::size_t missing = raw.find("HTTP/1.1 404 ");
  const std::size_t last = raw.rfind("HTTP/1.1 200 OK");
  ASSERT_NE(metrics, std::string::npos) << raw;
  ASSERT_NE(missing, std::string::npos) << raw;
  EXPECT_LT(first, metrics);
  EXPECT_LT(metrics, missing);
  EXPECT_LT(missing, last);
  EXPECT_EQ(raw.substr(raw.size() - 3), "ok\n");
}

TEST(StatServerTest, ClosingAnswerSaysSoWithoutKeepAlive) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  for (const char* method : {"GET", "POST"}) {
    const Response response = request(port, method, "/healthz", "Content-Length: 0\r\n");
    EXPECT_EQ(response.header("Connection"), "close") << method << ' ' << response.head;
    EXPECT_EQ(response.head.find("Keep-Alive"), std::string::npos) << response.head;
  }
  // Kept alive when the client does not ask otherwise.
  const int fd = connectTo(port);
  ASSERT_GE(fd, 0);
  sendAll(fd, "GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n");
  const Response kept = readResponse(fd);
  EXPECT_EQ(kept.status, 200);
  EXPECT_EQ(kept.header("Connection"), "");
  sendAll(fd, "GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(readResponse(fd).status, 200);
  ::close(fd);
}

TEST(StatServerTest, BeyondTheConnectionLimitRequestsGet503) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  const std::vector<int> held = holdConnections(port, 400, "");
  ASSERT_EQ(held.size(), 400u);
  // The server sees the connections in its own time: ask until it does.
  const Response refused = healthUntil(port, 503, Clock::now() + std::chrono::seconds(10));
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.header("Connection"), "close");
  for (const int fd : held) {
    ::close(fd);
  }
  EXPECT_EQ(healthUntil(port, 200, Clock::now() + std::chrono::seconds(10)).status, 200);
}

TEST(StatServerTest, ListensOnIpv6Loopback) {
  ServerChild server("[::1]:0");
  const std::string line = server.firstLine();
  EXPECT_EQ(line.compare(0, 19, "listening on [::1]:"), 0) << line << server.errText();
}

TEST(StatServerTest, UnresolvableHostSaysWhy) {
  ServerChild server("no-such-host.invalid:0");
  EXPECT_EQ(server.wait(30), 1);
  const std::string err = server.errText();
  EXPECT_NE(err.find("cannot listen on no-such-host.invalid:0: cannot resolve no-such-host.invalid: "),
            std::string::npos)
      << err;
  EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
}

TEST(StatServerTest, SigtermWithManyConnectionsHeldStopsCleanly) {
  ServerChild server("127.0.0.1:0");
  const int port = server.port();
  ASSERT_GT(port, 0);
  std::vector<int> held = holdConnections(port, 50, "");
  const std::vector<int> halfway = holdConnections(port, 50, "GET /metrics HTTP/1.1\r\nHo");
  held.insert(held.end(), halfway.begin(), halfway.end());
  ASSERT_EQ(held.size(), 100u);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
  ::kill(server.pid(), SIGTERM);
  EXPECT_EQ(server.wait(20), 0);
  // Every held connection was closed by the server.
  for (const int fd : held) {
    EXPECT_EQ(readAll(fd, 5).find("HTTP/1.1 2"), std::string::npos);
    char probe = 0;
    EXPECT_EQ(::recv(fd, &probe, 1, MSG_DONTWAIT), 0);
    ::close(fd);
  }
}

// A stop while a sample is in progress and more requests wait for theirs:
// the sample finishes, the waiting requests are answered or closed, and
// the server ends with status 0 (the library refuses to stop with a
// request still suspended).
TEST(StatServerTest, SigtermWhileSamplingStopsCleanly) {
  char dir[] = "/tmp/heron-server-test.XXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  const std::string started = std::string(dir) + "/sampling";
  Stat::Endpoints endpoints = fakeEndpoints();
  endpoints.metrics = [started] {
    const int fd = ::open(started.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ::close(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return Stat::Answer{200, "slow\n"};
  };
  ServerChild server("127.0.0.1:0", endpoints);
  const int port = server.port();
  ASSERT_GT(port, 0);
  const std::vector<int> waiting = holdConnections(port, 5, "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_EQ(waiting.size(), 5u);
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (::access(started.c_str(), F_OK) != 0 && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(::access(started.c_str(), F_OK), 0) << "no sample started";
  ::kill(server.pid(), SIGTERM);
  EXPECT_EQ(server.wait(20), 0);
  for (const int fd : waiting) {
    const std::string raw = readAll(fd, 5);
    EXPECT_TRUE(raw.empty() || raw.compare(0, 12, "HTTP/1.1 200") == 0 || raw.compare(0, 12, "HTTP/1.1 503") == 0)
        << raw;
    ::close(fd);
  }
  ::unlink(started.c_str());
  ::rmdir(dir);
}

// The live page: its files, and the sample it fetches.
Stat::Endpoints pageEndpoints() {
  Stat::Endpoints endpoints = fakeEndpoints();
  endpoints.sample = [] { return Stat::Answer{200, "{\"schema\":1,\"tables\":[]}\n"}; };
  endpoints.refreshSeconds = 2.5;
  return endpoints;
}

void expectPolicyHeaders(const Response& response, const std::string& what) {
  EXPECT_EQ(response.header("Content-Security-Policy"), Stat::kContentSecurityPolicy) << what;
  EXPECT_EQ(response.header("X-Content-Type-Options"), "nosniff") << what;
  EXPECT_EQ(response.header("Referrer-Policy"), "no-referrer") << what;
}

TEST(StatServerTest, PageFilesAnswerWithTheirTypesAndPolicy) {
  ServerChild server("127.0.0.1:0", pageEndpoints());
  const int port = server.port();
  ASSERT_GT(port, 0);
  const std::pair<const char*, const char*> files[] = {{"/", "text/html; charset=utf-8"},
                                                       {"/app.js", "text/javascript; charset=utf-8"},
                                                       {"/style.css", "text/css; charset=utf-8"}};
  for (const auto& [path, type] : files) {
    const Response response = request(port, "GET", path);
    EXPECT_EQ(response.status, 200) << path;
    EXPECT_EQ(response.header("Content-Type"), type) << path;
    EXPECT_EQ(response.header("Cache-Control"), "no-cache") << path;
    expectPolicyHeaders(response, path);
    Stat::PageFile file;
    ASSERT_TRUE(Stat::findPageFile(path, file));
    EXPECT_EQ(response.body, file.body) << path;
    const Response head = request(port, "HEAD", path);
    EXPECT_EQ(head.status, 200) << path;
    EXPECT_EQ(head.header("Content-Length"), std::to_string(file.body.size())) << path;
  }
}

TEST(StatServerTest, SampleAnswersJsonNeverCached) {
  ServerChild server("127.0.0.1:0", pageEndpoints());
  const int port = server.port();
  ASSERT_GT(port, 0);
  const Response response = request(port, "GET", "/api/v1/sample?t=1");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.header("Content-Type"), "application/json");
  EXPECT_EQ(response.header("Cache-Control"), "no-store");
  EXPECT_EQ(response.header("X-Heron-Refresh-Seconds"), "2.5");
  expectPolicyHeaders(response, "sample");
  EXPECT_EQ(response.body, "{\"schema\":1,\"tables\":[]}\n");
}

TEST(StatServerTest, EveryAnswerCarriesThePolicy) {
  ServerChild server("127.0.0.1:0", pageEndpoints());
  const int port = server.port();
  ASSERT_GT(port, 0);
  for (const char* path : {"/metrics", "/healthz", "/nothing"}) {
    expectPolicyHeaders(request(port, "GET", path), path);
  }
}

TEST(StatServerTest, PageTakesOnlyGetAndHead) {
  ServerChild server("127.0.0.1:0", pageEndpoints());
  const int port = server.port();
  ASSERT_GT(port, 0);
  for (const char* path : {"/", "/app.js", "/api/v1/sample"}) {
    const Response response = request(port, "POST", path, "Content-Length: 3\r\n\r\nabc");
    EXPECT_EQ(response.status, 405) << path;
    EXPECT_EQ(response.header("Allow"), "GET, HEAD") << path;
  }
}

TEST(StatServerTest, FailedSampleIsNotJson) {
  Stat::Endpoints endpoints = pageEndpoints();
  endpoints.sample = []() -> Stat::Answer { throw std::runtime_error("no sample"); };
  ServerChild server("127.0.0.1:0", endpoints);
  const int port = server.port();
  ASSERT_GT(port, 0);
  const Response response = request(port, "GET", "/api/v1/sample");
  EXPECT_EQ(response.status, 500);
  EXPECT_EQ(response.header("Content-Type"), "text/plain; charset=utf-8");
  EXPECT_EQ(request(port, "GET", "/").status, 200);
}

}  // namespace

// heron-stat's HTTP server: its listen address, and what it answers to
// requests well and badly formed.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "ServerHarness.h"

using namespace ServerTest;

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

TEST_F(StatServerTest, PortZeroPrintsTheChosenPort) {
  const int port = start();
  ASSERT_GT(port, 0);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST_F(StatServerTest, MetricsAnswersTheSampleAsPrometheusText) {
  const int port = start();
  ASSERT_GT(port, 0);
  const Response first = request(port, "GET", "/metrics");
  EXPECT_EQ(first.status, 200);
  EXPECT_EQ(first.header("Content-Type"), kMetricsType);
  EXPECT_NE(first.body.find("\nfake_samples_total 1\n"), std::string::npos) << first.body;
  // Every scrape takes a fresh sample.
  const Response second = request(port, "GET", "/metrics?ignored=1");
  EXPECT_NE(second.body.find("\nfake_samples_total 2\n"), std::string::npos) << second.body;
}

TEST_F(StatServerTest, HealthzSaysOk) {
  const int port = start();
  ASSERT_GT(port, 0);
  const Response response = request(port, "GET", "/healthz");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "ok\n");
}

TEST_F(StatServerTest, HeadAnswersHeadersWithoutBody) {
  const int port = start();
  ASSERT_GT(port, 0);
  // A HEAD and then a GET on one connection: were a body sent after the
  // HEAD, it would be read as the GET's status line.
  const int fd = connectAndSend(port, "HEAD /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_GE(fd, 0);
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

TEST_F(StatServerTest, UnknownPathIsNotFound) {
  const int port = start();
  ASSERT_GT(port, 0);
  EXPECT_EQ(request(port, "GET", "/nothing").status, 404);
  EXPECT_EQ(request(port, "GET", "/metrics/x").status, 404);
  EXPECT_EQ(request(port, "GET", "/index.html").status, 404);
  EXPECT_EQ(request(port, "GET", "/api/v1/sample/").status, 404);
  EXPECT_EQ(request(port, "GET", "//app.js").status, 404);
  EXPECT_EQ(request(port, "GET", "/Metrics").status, 404);
  EXPECT_EQ(request(port, "POST", "/nothing", "Content-Length: 0\r\n").status, 404);
}

TEST_F(StatServerTest, OtherMethodsAreNotAllowed) {
  const int port = start();
  ASSERT_GT(port, 0);
  for (const char* path : {"/metrics", "/healthz"}) {
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS"}) {
      const Response response = request(port, method, path, "Content-Length: 3\r\n\r\nabc");
      EXPECT_EQ(response.status, 405) << method << ' ' << path;
      EXPECT_EQ(response.header("Allow"), "GET, HEAD") << method << ' ' << path;
    }
  }
}

TEST_F(StatServerTest, UnknownMethodsAreNotAllowedEither) {
  const int port = start();
  ASSERT_GT(port, 0);
  for (const char* method : {"BREW", "get", "TRACE", "CONNECT"}) {
    const Response response = request(port, method, "/metrics");
    EXPECT_EQ(response.status, 405) << method;
    EXPECT_EQ(response.header("Allow"), "GET, HEAD") << method;
    EXPECT_EQ(request(port, method, "/elsewhere").status, 404) << method;
  }
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST_F(StatServerTest, BusyPortFailsWithOneLine) {
  ServerChild first("127.0.0.1:0");
  const int port = first.port();
  ASSERT_GT(port, 0);
  ServerChild second("127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(second.wait(20), 1);
  const std::string err = second.errText();
  EXPECT_NE(err.find("cannot listen on 127.0.0.1:" + std::to_string(port)), std::string::npos) << err;
  EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
}

TEST_F(StatServerTest, CallbackExceptionAnswers500) {
  Stat::Endpoints endpoints = fakeEndpoints();
  endpoints.metrics = []() -> Stat::Answer { throw std::runtime_error("no sample"); };
  const int port = start(endpoints);
  ASSERT_GT(port, 0);
  EXPECT_EQ(request(port, "GET", "/metrics").status, 500);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST_F(StatServerTest, HealthAnswersWhatItsCallbackSays) {
  Stat::Endpoints endpoints = fakeEndpoints();
  endpoints.health = [] { return Stat::Answer{503, "collection root missing\n"}; };
  const int port = start(endpoints);
  ASSERT_GT(port, 0);
  const Response response = request(port, "GET", "/healthz");
  EXPECT_EQ(response.status, 503);
  EXPECT_EQ(response.body, "collection root missing\n");
  EXPECT_EQ(response.header("Content-Type"), "text/plain; charset=utf-8");
}

TEST_F(StatServerTest, PipelinedRequestsAreAnsweredInOrder) {
  const int port = start();
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

TEST_F(StatServerTest, ClosingAnswerSaysSoWithoutKeepAlive) {
  const int port = start();
  ASSERT_GT(port, 0);
  for (const char* method : {"GET", "POST"}) {
    const Response response = request(port, method, "/healthz", "Content-Length: 0\r\n");
    EXPECT_EQ(response.header("Connection"), "close") << method << ' ' << response.head;
    EXPECT_EQ(response.head.find("Keep-Alive"), std::string::npos) << response.head;
  }
  // Kept alive when the client does not ask otherwise.
  const int fd = connectAndSend(port, "GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_GE(fd, 0);
  const Response kept = readResponse(fd);
  EXPECT_EQ(kept.status, 200);
  EXPECT_EQ(kept.header("Connection"), "");
  sendAll(fd, "GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(readResponse(fd).status, 200);
  ::close(fd);
}

TEST_F(StatServerTest, ListensOnIpv6Loopback) {
  ServerChild server("[::1]:0");
  const std::string line = server.firstLine();
  EXPECT_EQ(line.compare(0, 19, "listening on [::1]:"), 0) << line << server.errText();
}

TEST_F(StatServerTest, UnresolvableHostSaysWhy) {
  ServerChild server("no-such-host.invalid:0");
  EXPECT_EQ(server.wait(30), 1);
  const std::string err = server.errText();
  EXPECT_NE(err.find("cannot listen on no-such-host.invalid:0: cannot resolve no-such-host.invalid: "),
            std::string::npos)
      << err;
  EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
}

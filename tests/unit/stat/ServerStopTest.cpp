// heron-stat's HTTP server stops cleanly on SIGTERM and SIGINT, whatever
// its clients are doing at the time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "ServerHarness.h"
#include "support/TempDir.h"

using namespace ServerTest;

namespace {

// Whether `path` exists by the deadline, looked for every millisecond.
bool waitForFile(const std::string& path, Clock::time_point deadline) {
  while (::access(path.c_str(), F_OK) != 0) {
    if (Clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace

TEST_F(StatServerTest, SigtermStopsCleanly) {
  const int port = start();
  ASSERT_GT(port, 0);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
  ::kill(server().pid(), SIGTERM);
  EXPECT_EQ(server().wait(20), 0);
  EXPECT_EQ(server().errText(), "");
  EXPECT_LT(connectTo(port), 0) << "still listening";
}

TEST_F(StatServerTest, SigintStopsCleanly) {
  ASSERT_GT(start(), 0);
  ::kill(server().pid(), SIGINT);
  EXPECT_EQ(server().wait(20), 0);
}

TEST_F(StatServerTest, SignalRightAfterListeningIsNotLost) {
  for (int i = 0; i < 5; ++i) {
    ServerChild server("127.0.0.1:0");
    ASSERT_FALSE(server.firstLine().empty());
    ::kill(server.pid(), SIGTERM);
    EXPECT_EQ(server.wait(20), 0);
  }
}

TEST_F(StatServerTest, SigtermWhileAClientStallsStillStops) {
  const int port = start();
  ASSERT_GT(port, 0);
  const int stalled = connectAndSend(port, "GET /metr");
  ASSERT_GE(stalled, 0);
  ::kill(server().pid(), SIGTERM);
  EXPECT_EQ(server().wait(20), 0);
  ::close(stalled);
}

TEST_F(StatServerTest, SigtermWithManyConnectionsHeldStopsCleanly) {
  const int port = start();
  ASSERT_GT(port, 0);
  std::vector<int> held = holdConnections(port, 50, "");
  const std::vector<int> halfway = holdConnections(port, 50, "GET /metrics HTTP/1.1\r\nHo");
  held.insert(held.end(), halfway.begin(), halfway.end());
  ASSERT_EQ(held.size(), 100u);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
  ::kill(server().pid(), SIGTERM);
  EXPECT_EQ(server().wait(20), 0);
  // Every held connection was closed by the server().
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
// request still suspended). The sample says when it has begun and goes on
// until the test, having sent the signal, lets it end.
TEST_F(StatServerTest, SigtermWhileSamplingStopsCleanly) {
  const HeronTest::TempDir dir("heron-server-test");
  ASSERT_FALSE(dir.path().empty());
  const std::string started = dir.file("sampling");
  const std::string release = dir.file("release");
  Stat::Endpoints endpoints = fakeEndpoints();
  endpoints.metrics = [started, release] {
    ::close(::open(started.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    waitForFile(release, Clock::now() + std::chrono::seconds(20));
    return Stat::Answer{200, "slow\n"};
  };
  const int port = start(endpoints);
  ASSERT_GT(port, 0);
  const std::vector<int> waiting = holdConnections(port, 5, "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_EQ(waiting.size(), 5u);
  ASSERT_TRUE(waitForFile(started, Clock::now() + std::chrono::seconds(10))) << "no sample started";
  ::kill(server().pid(), SIGTERM);
  ::close(::open(release.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(server().wait(20), 0);
  for (const int fd : waiting) {
    const std::string raw = readAll(fd, 5);
    EXPECT_TRUE(raw.empty() || raw.compare(0, 12, "HTTP/1.1 200") == 0 || raw.compare(0, 12, "HTTP/1.1 503") == 0)
        << raw;
    ::close(fd);
  }
}

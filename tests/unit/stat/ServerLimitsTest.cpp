// heron-stat's HTTP server at its limits: huge requests, stalled clients,
// more connections than it takes, many scrapes at once.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ServerHarness.h"

using namespace ServerTest;

TEST_F(StatServerTest, HugeRequestLineIsRefusedAndOthersStillAnswered) {
  const int port = start();
  ASSERT_GT(port, 0);
  const Response refused = request(port, "GET", "/metrics?" + std::string(1 << 20, 'a'));
  EXPECT_TRUE(refused.status == 414 || refused.status == 431) << refused.status;
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST_F(StatServerTest, HugeHeaderIsRefused) {
  const int port = start();
  ASSERT_GT(port, 0);
  const Response refused = request(port, "GET", "/metrics", "X-Big: " + std::string(1 << 20, 'a') + "\r\n");
  EXPECT_EQ(refused.status, 431);
  EXPECT_EQ(request(port, "GET", "/healthz").status, 200);
}

TEST_F(StatServerTest, StalledClientDoesNotHoldUpOthersAndIsDropped) {
  const int port = start();
  ASSERT_GT(port, 0);
  const int stalled = connectAndSend(port, "GET /metrics HTTP/1.1\r\nHost: x\r\nX-Half: ");
  ASSERT_GE(stalled, 0);
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

TEST_F(StatServerTest, BeyondTheConnectionLimitRequestsGet503) {
  const int port = start();
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

TEST_F(StatServerTest, SamplesAreTakenOneAtATime) {
  const int port = start();
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
TEST_F(StatServerTest, SamplesAreTakenOnOneThread) {
  const int port = start();
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

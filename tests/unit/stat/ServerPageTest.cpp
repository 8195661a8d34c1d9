// The live page over the real server: its files, the sample it fetches and
// the headers every answer carries.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "Page.h"
#include "ServerHarness.h"

using namespace ServerTest;

namespace {

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

TEST_F(StatServerTest, PageFilesAnswerWithTheirTypesAndPolicy) {
  const int port = start(pageEndpoints());
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

TEST_F(StatServerTest, SampleAnswersJsonNeverCached) {
  const int port = start(pageEndpoints());
  ASSERT_GT(port, 0);
  const Response response = request(port, "GET", "/api/v1/sample?t=1");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.header("Content-Type"), "application/json");
  EXPECT_EQ(response.header("Cache-Control"), "no-store");
  EXPECT_EQ(response.header("X-Heron-Refresh-Seconds"), "2.5");
  expectPolicyHeaders(response, "sample");
  EXPECT_EQ(response.body, "{\"schema\":1,\"tables\":[]}\n");
}

TEST_F(StatServerTest, EveryAnswerCarriesThePolicy) {
  const int port = start(pageEndpoints());
  ASSERT_GT(port, 0);
  for (const char* path : {"/metrics", "/healthz", "/nothing"}) {
    expectPolicyHeaders(request(port, "GET", path), path);
  }
}

TEST_F(StatServerTest, PageTakesOnlyGetAndHead) {
  const int port = start(pageEndpoints());
  ASSERT_GT(port, 0);
  for (const char* path : {"/", "/app.js", "/api/v1/sample"}) {
    const Response response = request(port, "POST", path, "Content-Length: 3\r\n\r\nabc");
    EXPECT_EQ(response.status, 405) << path;
    EXPECT_EQ(response.header("Allow"), "GET, HEAD") << path;
  }
}

TEST_F(StatServerTest, FailedSampleIsNotJson) {
  Stat::Endpoints endpoints = pageEndpoints();
  endpoints.sample = []() -> Stat::Answer { throw std::runtime_error("no sample"); };
  const int port = start(endpoints);
  ASSERT_GT(port, 0);
  const Response response = request(port, "GET", "/api/v1/sample");
  EXPECT_EQ(response.status, 500);
  EXPECT_EQ(response.header("Content-Type"), "text/plain; charset=utf-8");
  EXPECT_EQ(request(port, "GET", "/").status, 200);
}

}  // namespace

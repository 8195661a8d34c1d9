// The live page of heron-stat --listen: its files as built into the binary,
// and the sample it fetches.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "Page.h"
#include "PageSample.h"
#include "Render.h"
#include "SampleFixture.h"

namespace {

std::string sourceFile(const std::string& relative) {
  const char* source = std::getenv("HERON_SOURCE");
  std::ifstream in(std::string(source != nullptr ? source : ".") + "/" + relative, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(StatPageTest, ServesTheFilesOfTheTreeByteForByte) {
  const std::pair<const char*, const char*> files[] = {
      {"/", "index.html"}, {"/app.js", "app.js"}, {"/style.css", "style.css"}};
  for (const auto& [path, name] : files) {
    Stat::PageFile file;
    ASSERT_TRUE(Stat::findPageFile(path, file)) << path;
    const std::string tree = sourceFile(std::string("tools/stat/page/") + name);
    ASSERT_FALSE(tree.empty()) << name << ": HERON_SOURCE must name the source tree";
    EXPECT_EQ(file.body, tree) << path;
  }
}

TEST(StatPageTest, ContentTypesFollowTheFile) {
  Stat::PageFile file;
  ASSERT_TRUE(Stat::findPageFile("/", file));
  EXPECT_STREQ(file.contentType, "text/html; charset=utf-8");
  ASSERT_TRUE(Stat::findPageFile("/app.js", file));
  EXPECT_STREQ(file.contentType, "text/javascript; charset=utf-8");
  ASSERT_TRUE(Stat::findPageFile("/style.css", file));
  EXPECT_STREQ(file.contentType, "text/css; charset=utf-8");
}

TEST(StatPageTest, OtherPathsAreNotPageFiles) {
  for (const char* path : {"", "app.js", "/index.html", "//app.js", "/app.js/", "/APP.JS", "/metrics", "/x"}) {
    Stat::PageFile file;
    EXPECT_FALSE(Stat::findPageFile(path, file)) << path;
  }
}

// Hosts in an incident have no internet: the page loads nothing from
// elsewhere, and nothing the policy would block (inline script or style).
TEST(StatPageTest, PageLoadsOnlyItsOwnFiles) {
  Stat::PageFile page;
  ASSERT_TRUE(Stat::findPageFile("/", page));
  const std::regex reference(R"re((src|href)="([^"]*)")re");
  int references = 0;
  for (auto it = std::sregex_iterator(page.body.begin(), page.body.end(), reference); it != std::sregex_iterator();
       ++it) {
    const std::string target = (*it)[2];
    ++references;
    EXPECT_EQ(target.find(':'), std::string::npos) << target;  // no scheme: not http:, data: or javascript:
    EXPECT_NE(target.compare(0, 1, "/"), 0) << target;         // relative, so a proxy may prefix the path
  }
  EXPECT_GE(references, 2);
  EXPECT_NE(page.body.find(R"(<script src="app.js" defer></script>)"), std::string::npos);
  EXPECT_EQ(std::regex_search(page.body, std::regex("<script>|<style|style=|onclick=|onload=")), false);
  Stat::PageFile script;
  ASSERT_TRUE(Stat::findPageFile("/app.js", script));
  EXPECT_EQ(script.body.find("innerHTML"), std::string::npos);
  EXPECT_EQ(script.body.find("outerHTML"), std::string::npos);
  EXPECT_EQ(script.body.find("insertAdjacentHTML"), std::string::npos);
  EXPECT_EQ(script.body.find("document.write"), std::string::npos);
  EXPECT_EQ(script.body.find("eval("), std::string::npos);
}

TEST(StatPageTest, PolicyAllowsOnlyThisOrigin) {
  const std::string policy = Stat::kContentSecurityPolicy;
  EXPECT_EQ(policy.compare(0, 20, "default-src 'none'; "), 0) << policy;
  for (const char* directive :
       {"script-src 'self'", "style-src 'self'", "connect-src 'self'", "base-uri 'none'", "frame-ancestors 'none'"}) {
    EXPECT_NE(policy.find(directive), std::string::npos) << directive;
  }
  EXPECT_EQ(policy.find("unsafe"), std::string::npos) << policy;
}

// A fake collector: each sample's writer has written 100 more records.
struct Samples {
  int taken = 0;
  Stat::Sample operator()() {
    Stat::Sample sample;
    sample.root = "/dev/shm/heron";
    sample.timeSeconds = 1700000000 + taken;
    sample.monotonicSeconds = 50 + taken;
    Stat::Table table = StatTest::healthyTable("orders");
    table.queues.ratePerSecond.reset();
    table.queues.secondsToSwitch.reset();
    table.allocator.allocationsPerSecond.reset();
    table.allocator.releasesPerSecond.reset();
    table.queues.sequence = 1000 + 100 * static_cast<std::uint64_t>(taken);
    table.readMonotonicSeconds = sample.monotonicSeconds;
    sample.tables.push_back(table);
    ++taken;
    return sample;
  }
};

TEST(StatPageSampleTest, DocumentIsTheJsonOfTheAssessedSample) {
  Samples samples;
  Stat::Thresholds thresholds;
  thresholds.staleSeconds = 0.1;  // the fixture's heartbeat is 0.25 s old
  Stat::PageSample page([&samples] { return samples(); }, thresholds, 1);
  const std::string document = page.document(100);
  Samples again;
  Stat::Sample expected = again();
  Stat::assess(expected, thresholds);
  EXPECT_EQ(document, Stat::renderJson(expected));
  EXPECT_NE(document.find("\"state\":\"stale\""), std::string::npos) << document;
}

TEST(StatPageSampleTest, RecentSampleIsServedAgain) {
  Samples samples;
  Stat::PageSample page([&samples] { return samples(); }, Stat::Thresholds{}, 1);
  EXPECT_DOUBLE_EQ(page.reuseSeconds(), 0.5);
  const std::string first = page.document(100);
  EXPECT_EQ(page.document(100.49), first);
  EXPECT_EQ(samples.taken, 1);
  const std::string second = page.document(100.5);
  EXPECT_EQ(samples.taken, 2);
  EXPECT_NE(second, first);
}

TEST(StatPageSampleTest, FreshSampleHasRatesFromTheOneBefore) {
  Samples samples;
  Stat::PageSample page([&samples] { return samples(); }, Stat::Thresholds{}, 1);
  EXPECT_NE(page.document(100).find("\"rate_per_second\":null"), std::string::npos);
  // 100 records in the 1 s between the fake samples.
  EXPECT_NE(page.document(101).find("\"rate_per_second\":100.0"), std::string::npos) << page.document(101);
}

TEST(StatPageSampleTest, RefreshFollowsTheInterval) {
  Samples samples;
  const auto take = [&samples] { return samples(); };
  EXPECT_DOUBLE_EQ(Stat::PageSample(take, Stat::Thresholds{}, 4).refreshSeconds(), 4);
  EXPECT_DOUBLE_EQ(Stat::PageSample(take, Stat::Thresholds{}, 4).reuseSeconds(), 2);
  // One sample and no rates (-i 0): the page still refreshes, every second.
  EXPECT_DOUBLE_EQ(Stat::PageSample(take, Stat::Thresholds{}, 0).refreshSeconds(), 1);
  // Never closer than rates can be had.
  EXPECT_DOUBLE_EQ(Stat::PageSample(take, Stat::Thresholds{}, 0.2).reuseSeconds(), Stat::ScrapeRates::kMinSeconds);
}

}  // namespace

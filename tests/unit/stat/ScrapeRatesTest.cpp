#include <gtest/gtest.h>

#include "ScrapeRates.h"
#include "stat/SampleFixture.h"

namespace {

// One scrape's sample of table "t" at monotonic time `at`, `sequence`
// appended so far; the active table (2) has 1024 - 24 = 1000 places left.
Stat::Sample scrapeAt(double at, std::uint64_t sequence) {
  Stat::Table table = StatTest::healthyTable("t");
  table.readMonotonicSeconds = at;
  table.queues.sequence = sequence;
  table.queues.tables[1].position = 24;
  table.queues.ratePerSecond.reset();
  table.queues.secondsToSwitch.reset();
  table.allocator.allocationsPerSecond.reset();
  table.allocator.releasesPerSecond.reset();
  Stat::Sample sample = StatTest::sampleOf({table});
  sample.monotonicSeconds = at;
  sample.intervalSeconds = 0;
  return sample;
}

TEST(StatScrapeRates, TheFirstScrapeHasNoRate) {
  Stat::ScrapeRates rates;
  Stat::Sample first = scrapeAt(100, 1000);
  rates.derive(first);
  EXPECT_FALSE(first.tables[0].queues.ratePerSecond);
  EXPECT_FALSE(first.tables[0].queues.secondsToSwitch);
}

TEST(StatScrapeRates, EachScrapeTakesItsRateFromTheOneBefore) {
  Stat::ScrapeRates rates;
  Stat::Sample first = scrapeAt(100, 1000);
  rates.derive(first);
  Stat::Sample second = scrapeAt(102, 3000);
  rates.derive(second);
  ASSERT_TRUE(second.tables[0].queues.ratePerSecond);
  EXPECT_DOUBLE_EQ(*second.tables[0].queues.ratePerSecond, 1000.0);
  ASSERT_TRUE(second.tables[0].queues.secondsToSwitch);
  EXPECT_DOUBLE_EQ(*second.tables[0].queues.secondsToSwitch, 1.0);
  Stat::Sample third = scrapeAt(107, 3500);
  rates.derive(third);
  ASSERT_TRUE(third.tables[0].queues.ratePerSecond);
  EXPECT_DOUBLE_EQ(*third.tables[0].queues.ratePerSecond, 100.0);
  EXPECT_DOUBLE_EQ(third.intervalSeconds, 5.0);
}

TEST(StatScrapeRates, AScrapeTooCloseToTheLastHasNoRateAndKeepsTheBase) {
  Stat::ScrapeRates rates;
  Stat::Sample first = scrapeAt(100, 1000);
  rates.derive(first);
  Stat::Sample close = scrapeAt(100.1, 1100);
  rates.derive(close);
  EXPECT_FALSE(close.tables[0].queues.ratePerSecond);
  // Still from the sample at 100 s, not from the one at 100.1 s.
  Stat::Sample later = scrapeAt(101, 2000);
  rates.derive(later);
  ASSERT_TRUE(later.tables[0].queues.ratePerSecond);
  EXPECT_DOUBLE_EQ(*later.tables[0].queues.ratePerSecond, 1000.0);
}

// Two server threads: the scrape that read first may get here last.
TEST(StatScrapeRates, AnOlderSampleArrivingLateNeitherGetsNorReplacesTheBase) {
  Stat::ScrapeRates rates;
  Stat::Sample first = scrapeAt(100, 1000);
  rates.derive(first);
  Stat::Sample newer = scrapeAt(103, 4000);
  rates.derive(newer);
  Stat::Sample older = scrapeAt(102, 3000);
  rates.derive(older);
  EXPECT_FALSE(older.tables[0].queues.ratePerSecond);
  Stat::Sample next = scrapeAt(104, 4500);
  rates.derive(next);
  ASSERT_TRUE(next.tables[0].queues.ratePerSecond);
  EXPECT_DOUBLE_EQ(*next.tables[0].queues.ratePerSecond, 500.0);
}

}  // namespace

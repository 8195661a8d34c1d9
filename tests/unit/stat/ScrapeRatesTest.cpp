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

// The sample of a scrape at `at` once `rates` has seen it.
Stat::Sample scrape(Stat::ScrapeRates& rates, double at, std::uint64_t sequence) {
  Stat::Sample sample = scrapeAt(at, sequence);
  rates.derive(sample);
  return sample;
}

TEST(StatScrapeRates, TheFirstScrapeHasNoRate) {
  Stat::ScrapeRates rates;
  const Stat::Sample first = scrape(rates, 100, 1000);
  EXPECT_FALSE(first.tables[0].queues.ratePerSecond);
  EXPECT_FALSE(first.tables[0].queues.secondsToSwitch);
}

TEST(StatScrapeRates, EachScrapeTakesItsRateFromTheOneBefore) {
  Stat::ScrapeRates rates;
  scrape(rates, 100, 1000);
  const Stat::Sample second = scrape(rates, 102, 3000);
  ASSERT_TRUE(second.tables[0].queues.ratePerSecond);
  EXPECT_DOUBLE_EQ(*second.tables[0].queues.ratePerSecond, 1000.0);
  ASSERT_TRUE(second.tables[0].queues.secondsToSwitch);
  EXPECT_DOUBLE_EQ(*second.tables[0].queues.secondsToSwitch, 1.0);
  const Stat::Sample third = scrape(rates, 107, 3500);
  ASSERT_TRUE(third.tables[0].queues.ratePerSecond);
  EXPECT_DOUBLE_EQ(*third.tables[0].queues.ratePerSecond, 100.0);
  EXPECT_DOUBLE_EQ(third.intervalSeconds, 5.0);
}

TEST(StatScrapeRates, AScrapeTooCloseToTheLastHasNoRateAndKeepsTheBase) {
  Stat::ScrapeRates rates;
  scrape(rates, 100, 1000);
  const Stat::Sample close = scrape(rates, 100.1, 1100);
  EXPECT_FALSE(close.tables[0].queues.ratePerSecond);
  // Still from the sample at 100 s, not from the one at 100.1 s.
  const Stat::Sample later = scrape(rates, 101, 2000);
  ASSERT_TRUE(later.tables[0].queues.ratePerSecond);
  EXPECT_DOUBLE_EQ(*later.tables[0].queues.ratePerSecond, 1000.0);
}

// Two server threads: the scrape that read first may get here last.
TEST(StatScrapeRates, AnOlderSampleArrivingLateNeitherGetsNorReplacesTheBase) {
  Stat::ScrapeRates rates;
  scrape(rates, 100, 1000);
  scrape(rates, 103, 4000);
  const Stat::Sample older = scrape(rates, 102, 3000);
  EXPECT_FALSE(older.tables[0].queues.ratePerSecond);
  const Stat::Sample next = scrape(rates, 104, 4500);
  ASSERT_TRUE(next.tables[0].queues.ratePerSecond);
  EXPECT_DOUBLE_EQ(*next.tables[0].queues.ratePerSecond, 500.0);
}

}  // namespace

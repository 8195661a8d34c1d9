#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <ostream>
#include <vector>

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

// Scrapes in the order the server's threads bring them, and the rate each
// one gets (none: NaN).
struct Scrapes {
  const char* name;
  std::vector<std::array<double, 3>> atSequenceRate;
};

std::ostream& operator<<(std::ostream& out, const Scrapes& scrapes) { return out << scrapes.name; }

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

const Scrapes kScrapes[] = {
    // The one at 101 s still takes its rate from 100 s, not from 100.1 s.
    {"AScrapeTooCloseToTheLastHasNoRateAndKeepsTheBase", {{100, 1000, kNone}, {100.1, 1100, kNone}, {101, 2000, 1000}}},
    // Two server threads: the scrape that read first may get here last.
    {"AnOlderSampleArrivingLateNeitherGetsNorReplacesTheBase",
     {{100, 1000, kNone}, {103, 4000, 1000}, {102, 3000, kNone}, {104, 4500, 500}}},
};

class StatScrapeRatesOrder : public testing::TestWithParam<Scrapes> {};

TEST_P(StatScrapeRatesOrder, EachScrapeGetsItsRate) {
  Stat::ScrapeRates rates;
  for (const auto& [at, sequence, expected] : GetParam().atSequenceRate) {
    const std::optional<double> rate =
        scrape(rates, at, static_cast<std::uint64_t>(sequence)).tables[0].queues.ratePerSecond;
    if (std::isnan(expected)) {
      EXPECT_FALSE(rate) << "at " << at;
    } else {
      ASSERT_TRUE(rate) << "at " << at;
      EXPECT_DOUBLE_EQ(*rate, expected) << "at " << at;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(StatScrapeRates, StatScrapeRatesOrder, testing::ValuesIn(kScrapes),
                         [](const testing::TestParamInfo<Scrapes>& info) { return std::string(info.param.name); });

}  // namespace

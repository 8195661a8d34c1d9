#include <gtest/gtest.h>

#include <utility>

#include "Collect.h"
#include "stat/SampleFixture.h"

namespace {

using Stat::Seen;
using Stat::State;
using StatTest::healthyTable;

State stateOf(const Stat::Table& table, Stat::Thresholds thresholds = {}) {
  Stat::Sample sample = StatTest::sampleOf({table});
  Stat::assess(sample, thresholds);
  return sample.tables[0].state;
}

TEST(StatAssess, LiveWriterWithFreshHeartbeatIsOk) { EXPECT_EQ(stateOf(healthyTable("t")), State::Ok); }

TEST(StatAssess, WriterPidGoneIsDead) {
  Stat::Table table = healthyTable("t");
  table.writer.alive = Seen::No;
  table.writer.mapsTable = Seen::Unknown;
  EXPECT_EQ(stateOf(table), State::Dead);
}

TEST(StatAssess, WriterPidThatNoLongerMapsTheTableIsDead) {
  Stat::Table table = healthyTable("t");
  table.writer.mapsTable = Seen::No;
  EXPECT_EQ(stateOf(table), State::Dead);
}

TEST(StatAssess, UnknownMappingOfALivePidIsNotDead) {
  Stat::Table table = healthyTable("t");
  table.writer.mapsTable = Seen::Unknown;
  EXPECT_EQ(stateOf(table), State::Ok);
}

TEST(StatAssess, TableWithoutEmberIsDeadUnlessArchive) {
  Stat::Table table = healthyTable("t");
  table.writer = Stat::Writer{};
  EXPECT_EQ(stateOf(table), State::Dead);
  table.identity.type = 3;
  EXPECT_EQ(stateOf(table), State::Ok);
}

TEST(StatAssess, ArchiveWhoseOldWriterIsGoneIsOk) {
  Stat::Table table = healthyTable("t");
  table.identity.type = 3;
  table.writer.alive = Seen::No;
  EXPECT_EQ(stateOf(table), State::Ok);
}

TEST(StatAssess, HeartbeatOlderThanStaleIsStaleAndAtItIsOk) {
  Stat::Table table = healthyTable("t");
  Stat::Thresholds thresholds;
  thresholds.staleSeconds = 5;
  table.writer.heartbeatAgeSeconds = 5.0;
  EXPECT_EQ(stateOf(table, thresholds), State::Ok);
  table.writer.heartbeatAgeSeconds = 5.01;
  EXPECT_EQ(stateOf(table, thresholds), State::Stale);
  thresholds.staleSeconds = 10;
  EXPECT_EQ(stateOf(table, thresholds), State::Ok);
}

TEST(StatAssess, FileErrorsMakeTheTableBrokenAndWinOverDead) {
  Stat::Table table = StatTest::brokenTable("t");
  EXPECT_EQ(stateOf(table), State::Broken);
  table = healthyTable("t");
  table.writer.alive = Seen::No;
  table.fileErrors.push_back("relay.1: missing");
  Stat::Sample sample = StatTest::sampleOf({table});
  Stat::assess(sample, {});
  EXPECT_EQ(sample.tables[0].state, State::Broken);
  ASSERT_EQ(sample.tables[0].problems.size(), 2U);
  EXPECT_EQ(sample.tables[0].problems[0].text, "relay.1: missing");
  EXPECT_EQ(sample.tables[0].problems[0].severity, Stat::Severity::Critical);
}

TEST(StatAssess, AllocatorAtWarnThresholdIsAWarningProblemButNotAState) {
  Stat::Table table = healthyTable("t");
  table.allocator.bytes = 1000;
  table.allocator.usedBytes = 900;
  Stat::Sample sample = StatTest::sampleOf({table});
  Stat::assess(sample, {});
  EXPECT_EQ(sample.tables[0].state, State::Ok);
  ASSERT_EQ(sample.tables[0].problems.size(), 1U);
  EXPECT_EQ(sample.tables[0].problems[0].severity, Stat::Severity::Warning);
  EXPECT_EQ(sample.tables[0].problems[0].text, "allocator 90% full (warning at 90%)");
  sample.tables[0].allocator.usedBytes = 899;
  Stat::assess(sample, {});
  EXPECT_TRUE(sample.tables[0].problems.empty());
}

TEST(StatAssess, AssessTwiceGivesTheSameProblems) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::brokenTable("t")});
  Stat::assess(sample, {});
  Stat::assess(sample, {});
  EXPECT_EQ(sample.tables[0].problems.size(), 1U);
}

TEST(StatRates, RateAndTimeToSwitchFromTwoSamples) {
  Stat::Table before = healthyTable("t");
  before.readMonotonicSeconds = 100;
  before.queues.sequence = 1000;
  before.allocator.allocations = 10;
  before.allocator.releases = 5;
  Stat::Table after = before;
  after.readMonotonicSeconds = 102;
  after.queues.sequence = 3000;
  after.queues.tables[1].position = 24;  // active is 2, capacity 1024: 1000 left
  after.allocator.allocations = 30;
  after.allocator.releases = 9;
  after.queues.ratePerSecond.reset();
  Stat::Sample first = StatTest::sampleOf({before});
  Stat::Sample second = StatTest::sampleOf({after});
  second.monotonicSeconds = first.monotonicSeconds + 2;
  Stat::deriveRates(first, second);
  EXPECT_DOUBLE_EQ(second.intervalSeconds, 2.0);
  ASSERT_TRUE(second.tables[0].queues.ratePerSecond);
  EXPECT_DOUBLE_EQ(*second.tables[0].queues.ratePerSecond, 1000.0);
  ASSERT_TRUE(second.tables[0].queues.secondsToSwitch);
  EXPECT_DOUBLE_EQ(*second.tables[0].queues.secondsToSwitch, 1.0);
  EXPECT_DOUBLE_EQ(*second.tables[0].allocator.allocationsPerSecond, 10.0);
  EXPECT_DOUBLE_EQ(*second.tables[0].allocator.releasesPerSecond, 2.0);
}

// The second sample, its rates derived from a first sample that held only
// `before`.
Stat::Sample derivedAfter(const Stat::Table& before, std::initializer_list<Stat::Table> after) {
  const Stat::Sample first = StatTest::sampleOf({before});
  Stat::Sample second = StatTest::sampleOf(after);
  Stat::deriveRates(first, second);
  return second;
}

// Table "t" read at 100 s, without rates of its own, and a copy of it read
// a second later.
std::pair<Stat::Table, Stat::Table> readASecondApart() {
  Stat::Table before = healthyTable("t");
  before.readMonotonicSeconds = 100;
  before.queues.ratePerSecond.reset();
  before.queues.secondsToSwitch.reset();
  before.allocator.allocationsPerSecond.reset();
  Stat::Table after = before;
  after.readMonotonicSeconds = 101;
  return {before, after};
}

TEST(StatRates, NoRateWhenTheSequenceWentBackOrTheTableIsNew) {
  auto [before, after] = readASecondApart();
  after.queues.sequence = before.queues.sequence - 1;
  Stat::Table fresh = before;
  fresh.identity.path = "/elsewhere";
  const Stat::Sample second = derivedAfter(before, {after, fresh});
  EXPECT_FALSE(second.tables[0].queues.ratePerSecond);
  EXPECT_FALSE(second.tables[1].queues.ratePerSecond);
}

TEST(StatRates, NoRateAcrossAWriterRestart) {
  auto [before, after] = readASecondApart();
  after.queues.sequence = before.queues.sequence + 500;
  after.allocator.allocations = before.allocator.allocations + 5;
  after.writer.instance = before.writer.instance + 1;
  const Stat::Sample second = derivedAfter(before, {after});
  EXPECT_FALSE(second.tables[0].queues.ratePerSecond);
  EXPECT_FALSE(second.tables[0].allocator.allocationsPerSecond);
}

TEST(StatRates, ZeroRateHasNoTimeToSwitch) {
  auto [before, after] = readASecondApart();
  const Stat::Sample second = derivedAfter(before, {after});
  EXPECT_DOUBLE_EQ(*second.tables[0].queues.ratePerSecond, 0.0);
  EXPECT_FALSE(second.tables[0].queues.secondsToSwitch);
}

}  // namespace

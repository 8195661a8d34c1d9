// --diff: what moved between two samples of the same tables.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Diff.h"
#include "SampleFixture.h"

namespace {

TEST(Diff, CountsAdvanceRateSwitchesAndAllocatorChanges) {
  Stat::Sample before = StatTest::sampleOf({StatTest::healthyTable("orders"), StatTest::healthyTable("gone")});
  Stat::Sample after = StatTest::sampleOf({StatTest::healthyTable("orders"), StatTest::healthyTable("new")});
  after.timeSeconds = before.timeSeconds + 4;
  Stat::Table& table = after.tables[0];
  table.queues.sequence += 2000;
  table.queues.tableVersion += 3;
  table.allocator.regions.push_back({7, 64, 10, 1, 0, true, ""});
  table.allocator.regions.erase(table.allocator.regions.begin());
  table.allocator.usedBytes -= 64;
  table.allocator.allocations += 100;
  table.allocator.releases += 101;
  table.state = Stat::State::Stale;

  const Stat::SampleDiff diff = Stat::diffSamples(before, after);
  EXPECT_EQ(diff.appeared, (std::vector<std::string>{"new"}));
  EXPECT_EQ(diff.vanished, (std::vector<std::string>{"gone"}));
  ASSERT_EQ(diff.tables.size(), 1U);
  const Stat::TableDiff& orders = diff.tables[0];
  EXPECT_EQ(orders.after, Stat::State::Stale);
  EXPECT_EQ(*orders.advance, 2000U);
  EXPECT_DOUBLE_EQ(*orders.ratePerSecond, 500);
  EXPECT_EQ(*orders.switches, 3U);
  EXPECT_FALSE(orders.writerChanged);
  EXPECT_EQ(orders.regionsAdded, (std::vector<std::uint32_t>{7}));
  EXPECT_EQ(orders.regionsRemoved, (std::vector<std::uint32_t>{1}));
  EXPECT_EQ(orders.usedBytesChange, -64);
  EXPECT_EQ(*orders.allocations, 100U);
  EXPECT_EQ(*orders.releases, 101U);

  const std::string text = Stat::renderDiffText(diff);
  EXPECT_NE(text.find("appeared  new\n"), std::string::npos) << text;
  EXPECT_NE(text.find("vanished  gone\n"), std::string::npos) << text;
  EXPECT_NE(text.find("orders  ok -> stale\n  sequence 123456 -> 125456 (+2000, 500.0/s), 3 queue switches\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("regions added [7], removed [1]"), std::string::npos) << text;
  const nlohmann::json json = nlohmann::json::parse(Stat::renderDiffJson(diff));
  EXPECT_EQ(json["tables"][0]["queues"]["advance"], 2000);
  EXPECT_EQ(json["tables"][0]["regions_removed"], nlohmann::json::array({1}));
}

TEST(Diff, NoAdvanceAcrossAWriterRestart) {
  Stat::Sample before = StatTest::sampleOf({StatTest::healthyTable("orders")});
  Stat::Sample after = StatTest::sampleOf({StatTest::healthyTable("orders")});
  Stat::Table& table = after.tables[0];
  table.writer.pid = table.writer.emberPid = 5000;
  table.writer.instance = 3;
  table.writer.restarts = 3;
  table.queues.sequence = 10;

  const Stat::SampleDiff diff = Stat::diffSamples(before, after);
  const Stat::TableDiff& orders = diff.tables.at(0);
  EXPECT_TRUE(orders.writerChanged);
  EXPECT_FALSE(orders.advance.has_value());
  EXPECT_FALSE(orders.allocations.has_value());
  const std::string text = Stat::renderDiffText(diff);
  EXPECT_NE(text.find("writer pid 4711 instance 2 restarts 2 -> pid 5000 instance 3 restarts 3"), std::string::npos)
      << text;
}

TEST(Diff, SaysNoChangeForATableWhereNothingMoved) {
  const Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("orders")});
  const std::string text = Stat::renderDiffText(Stat::diffSamples(sample, sample));
  EXPECT_NE(text.find("\norders  ok, no change\n"), std::string::npos) << text;
}

}  // namespace

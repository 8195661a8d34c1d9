#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>

#include "Render.h"
#include "stat/SampleFixture.h"

namespace {

using Stat::Seen;

Stat::Verdict verdict(Stat::Sample sample, Stat::Thresholds thresholds = {}) {
  Stat::assess(sample, thresholds);
  return Stat::renderCheck(sample, thresholds);
}

std::string firstLine(const Stat::Verdict& v) { return v.text.substr(0, v.text.find('\n')); }

Stat::Table withState(const std::string& name, Stat::State state) {
  Stat::Table table = StatTest::healthyTable(name);
  switch (state) {
    case Stat::State::Ok:
      break;
    case Stat::State::Stale:
      table.writer.heartbeatAgeSeconds = 60;
      break;
    case Stat::State::Dead:
      table.writer.alive = Seen::No;
      break;
    case Stat::State::Broken:
      table = StatTest::brokenTable(name);
      break;
  }
  return table;
}

// Healthy table "a" whose allocator has `used` of its 1000 bytes in use.
Stat::Table allocatorUsing(std::uint64_t used) {
  Stat::Table table = StatTest::healthyTable("a");
  table.allocator.bytes = 1000;
  table.allocator.usedBytes = used;
  return table;
}

TEST(StatRenderCheck, AllOkIsStatusZero) {
  const Stat::Verdict v =
      verdict(StatTest::sampleOf({withState("a", Stat::State::Ok), withState("b", Stat::State::Ok)}));
  EXPECT_EQ(v.status, 0);
  EXPECT_EQ(firstLine(v),
            "HERON OK - 2 tables ok | tables=2 ok=2 stale=0 dead=0 broken=0 alloc_max=22%;90;;0;100 "
            "oldest_heartbeat=0.250s;5;;0; sample_duration=0.012500s");
  EXPECT_EQ(v.text, firstLine(v) + "\n");
}

TEST(StatRenderCheck, StaleIsWarning) {
  const Stat::Verdict v =
      verdict(StatTest::sampleOf({withState("a", Stat::State::Ok), withState("b", Stat::State::Stale)}));
  EXPECT_EQ(v.status, 1);
  EXPECT_EQ(firstLine(v).substr(0, 44), "HERON WARNING - 1 of 2 tables stale: b | tab");
  EXPECT_NE(v.text.find("\nWARNING: b: heartbeat 60.0 s old (stale after 5 s)\n"), std::string::npos) << v.text;
}

TEST(StatRenderCheck, DeadIsCriticalAndNamesTheTable) {
  const Stat::Verdict v = verdict(StatTest::sampleOf({withState("orders", Stat::State::Dead)}));
  EXPECT_EQ(v.status, 2);
  EXPECT_EQ(firstLine(v).substr(0, 45), "HERON CRITICAL - 1 of 1 tables dead: orders |");
  EXPECT_NE(v.text.find("\nCRITICAL: orders: writer 4711 is not running\n"), std::string::npos);
}

TEST(StatRenderCheck, BrokenIsCriticalWithTheReason) {
  const Stat::Verdict v =
      verdict(StatTest::sampleOf({withState("a", Stat::State::Ok), withState("b", Stat::State::Broken)}));
  EXPECT_EQ(v.status, 2);
  EXPECT_NE(firstLine(v).find("1 of 2 tables broken: b"), std::string::npos);
  EXPECT_NE(firstLine(v).find("broken=1"), std::string::npos);
  EXPECT_NE(v.text.find("\nCRITICAL: b: /dev/shm/heron/b/owner: bad magic\n"), std::string::npos);
}

TEST(StatRenderCheck, WorstStateWinsAndEveryProblemHasALine) {
  const Stat::Verdict v = verdict(StatTest::sampleOf(
      {withState("a", Stat::State::Stale), withState("b", Stat::State::Dead), withState("c", Stat::State::Broken)}));
  EXPECT_EQ(v.status, 2);
  EXPECT_NE(firstLine(v).find("1 of 3 tables broken: c; 1 of 3 tables dead: b; 1 of 3 tables stale: a"),
            std::string::npos)
      << firstLine(v);
  EXPECT_NE(v.text.find("\nWARNING: a: "), std::string::npos);
  EXPECT_NE(v.text.find("\nCRITICAL: b: "), std::string::npos);
  EXPECT_NE(v.text.find("\nCRITICAL: c: "), std::string::npos);
}

TEST(StatRenderCheck, NoTableIsUnknown) {
  const Stat::Verdict v = verdict(StatTest::sampleOf({}));
  EXPECT_EQ(v.status, 3);
  EXPECT_EQ(firstLine(v).substr(0, 47), "HERON UNKNOWN - no table under /dev/shm/heron |");
}

TEST(StatRenderCheck, StaleThresholdIsAnOption) {
  Stat::Table table = StatTest::healthyTable("a");
  table.writer.heartbeatAgeSeconds = 7;
  Stat::Thresholds thresholds;
  EXPECT_EQ(verdict(StatTest::sampleOf({table}), thresholds).status, 1);
  thresholds.staleSeconds = 10;
  EXPECT_EQ(verdict(StatTest::sampleOf({table}), thresholds).status, 0);
}

TEST(StatRenderCheck, AllocatorAtOrOverWarnAllocIsWarning) {
  const Stat::Table table = allocatorUsing(900);
  Stat::Thresholds thresholds;
  Stat::Verdict v = verdict(StatTest::sampleOf({table}), thresholds);
  EXPECT_EQ(v.status, 1);
  EXPECT_NE(firstLine(v).find("allocator at or over 90%: a"), std::string::npos) << firstLine(v);
  EXPECT_NE(firstLine(v).find("alloc_max=90%;90;;0;100"), std::string::npos);
  EXPECT_NE(v.text.find("\nWARNING: a: allocator 90% full (warning at 90%)\n"), std::string::npos);
  thresholds.warnAllocPercent = 95;
  EXPECT_EQ(verdict(StatTest::sampleOf({table}), thresholds).status, 0);
}

TEST(StatRenderCheck, AllocatorAtOrOverCritAllocIsCritical) {
  const Stat::Table table = allocatorUsing(960);
  Stat::Thresholds thresholds;
  thresholds.critAllocPercent = 95;
  const Stat::Verdict v = verdict(StatTest::sampleOf({table}), thresholds);
  EXPECT_EQ(v.status, 2);
  EXPECT_NE(firstLine(v).find("alloc_max=96%;90;95;0;100"), std::string::npos) << firstLine(v);
  EXPECT_NE(v.text.find("\nCRITICAL: a: allocator 96% full (critical at 95%)\n"), std::string::npos);
}

TEST(StatRenderCheck, FirstLineHasTheMonitoringPluginShape) {
  const Stat::Verdict v = verdict(StatTest::sampleOf({withState("x", Stat::State::Dead)}));
  const std::regex shape(R"(HERON (OK|WARNING|CRITICAL|UNKNOWN) - [^|]+ \| ([a-z_]+=[0-9.]+[%s]?(;[0-9.]*)* ?)+)");
  EXPECT_TRUE(std::regex_match(firstLine(v), shape)) << firstLine(v);
}

TEST(StatRenderCheck, NamesWithControlCharactersAreEscaped) {
  const Stat::Verdict v = verdict(StatTest::sampleOf({withState("a\nb", Stat::State::Dead)}));
  EXPECT_NE(v.text.find("CRITICAL: a\\x0ab: writer"), std::string::npos) << v.text;
}

TEST(StatRenderCheck, PerfdataHasTheOldestHeartbeatOfTablesWithAWriter) {
  Stat::Table older = StatTest::healthyTable("b");
  older.writer.heartbeatAgeSeconds = 3.5;
  Stat::Table archive = StatTest::healthyTable("c");
  archive.identity.type = 3;
  archive.writer.alive = Seen::No;
  archive.writer.heartbeatAgeSeconds = 5000;
  const Stat::Verdict v = verdict(StatTest::sampleOf({StatTest::healthyTable("a"), older, archive}));
  EXPECT_NE(firstLine(v).find(" oldest_heartbeat=3.500s;5;;0; "), std::string::npos) << firstLine(v);
  EXPECT_EQ(v.status, 0) << v.text;
}

TEST(StatRenderCheck, NoHeartbeatToMeasureIsUndetermined) {
  const Stat::Verdict v = verdict(StatTest::sampleOf({withState("a", Stat::State::Broken)}));
  EXPECT_NE(firstLine(v).find(" oldest_heartbeat=U;5;;0; "), std::string::npos) << firstLine(v);
}

TEST(StatRenderCheck, APipeInATableNameCannotAddPerformanceData) {
  const Stat::Verdict v = verdict(StatTest::sampleOf({withState("x|y=1;2", Stat::State::Dead)}));
  const std::string first = firstLine(v);
  EXPECT_EQ(std::count(first.begin(), first.end(), '|'), 1) << first;
  EXPECT_NE(first.find("dead: x\\x7cy=1;2 |"), std::string::npos) << first;
  EXPECT_EQ(v.text.find("y=1;2 tables="), std::string::npos);
  EXPECT_EQ(std::count(v.text.begin(), v.text.end(), '|'), 1) << v.text;
}

TEST(StatRenderCheck, ARootThatCannotBeListedIsUnknown) {
  Stat::Sample sample = StatTest::unusableRoot("collection root /dev/shm/heorn does not exist");
  const Stat::Verdict v = verdict(sample);
  EXPECT_EQ(v.status, 3);
  EXPECT_EQ(v.text, "HERON UNKNOWN - collection root /dev/shm/heorn does not exist\n");
}

TEST(StatRenderCheck, AnExprThatMatchesNothingIsUnknownAndCountsTheTablesThere) {
  Stat::Sample sample = StatTest::unmatched("ordres", 5);
  const Stat::Verdict v = verdict(sample);
  EXPECT_EQ(v.status, 3);
  EXPECT_EQ(v.text, "HERON UNKNOWN - no table matches ordres under /dev/shm/heron (5 tables there)\n");
}

TEST(StatRenderCheck, UnknownClientsAreSaidOnTheSecondLine) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("a")});
  sample.clientsKnown = false;
  const Stat::Verdict v = verdict(sample);
  EXPECT_EQ(v.status, 0);
  const std::string second = v.text.substr(v.text.find('\n') + 1);
  EXPECT_EQ(second.rfind("clients unknown (not root): dead writers are judged by pid and heartbeat only", 0), 0U)
      << v.text;
  EXPECT_NE(second.find("CAP_SYS_PTRACE"), std::string::npos);
}

TEST(StatRenderCheck, AnInconsistentRegionIsAWarningLine) {
  Stat::Table table = StatTest::healthyTable("orders");
  table.allocator.regions[1].consistent = false;
  table.allocator.regions[1].inconsistency = "used count 4294967295, bitmap 10, units 100";
  const Stat::Verdict v = verdict(StatTest::sampleOf({table}));
  EXPECT_EQ(v.status, 1);
  EXPECT_NE(v.text.find("\nWARNING: orders: region 2 of orders is inconsistent: used count 4294967295, bitmap 10, "
                        "units 100\n"),
            std::string::npos)
      << v.text;
}

}  // namespace

#include <gtest/gtest.h>

#include "Health.h"
#include "stat/SampleFixture.h"

namespace {

TEST(StatHealth, ASoundSampleIsOk) {
  const Stat::HealthAnswer answer = Stat::health(StatTest::sampleOf({StatTest::healthyTable("a")}));
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "ok\n");
}

TEST(StatHealth, AnEmptyRootWithoutExprIsOk) {
  // Nothing asked for, nothing there: a fresh host before its writers start.
  EXPECT_EQ(Stat::health(StatTest::sampleOf({})).status, 200);
}

TEST(StatHealth, BadTablesAreNotHeronStatsOwnHealth) {
  EXPECT_EQ(Stat::health(StatTest::sampleOf({StatTest::brokenTable("a")})).status, 200);
}

TEST(StatHealth, ARootThatCannotBeListedIs503WithTheReason) {
  Stat::Sample sample = StatTest::unusableRoot("collection root /dev/shm/heorn does not exist");
  const Stat::HealthAnswer answer = Stat::health(sample);
  EXPECT_EQ(answer.status, 503);
  EXPECT_EQ(answer.body, "collection root /dev/shm/heorn does not exist\n");
}

TEST(StatHealth, AnExprThatMatchesNothingIs503) {
  Stat::Sample sample = StatTest::unmatched("ordres", 2);
  const Stat::HealthAnswer answer = Stat::health(sample);
  EXPECT_EQ(answer.status, 503);
  EXPECT_EQ(answer.body, "no table matches ordres under /dev/shm/heron (2 tables there)\n");
}

TEST(StatHealth, TheReasonIsOneLineWhateverTheRootHolds) {
  Stat::Sample sample = StatTest::unusableRoot("collection root /a\nb does not exist");
  EXPECT_EQ(Stat::health(sample).body, "collection root /a\\x0ab does not exist\n");
}

TEST(StatClientsNote, OnlyWhenTheWalkRanAndSawTooLittle) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("a")});
  EXPECT_EQ(Stat::clientsNote(sample), "");
  sample.clientsKnown = false;
  EXPECT_NE(Stat::clientsNote(sample).find("run as root or with CAP_SYS_PTRACE"), std::string::npos);
  sample.clientsWalked = false;  // --no-clients: asked for
  EXPECT_EQ(Stat::clientsNote(sample), "");
}

}  // namespace

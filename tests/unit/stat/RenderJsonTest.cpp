#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "Render.h"
#include "stat/SampleFixture.h"

namespace {

using Json = nlohmann::json;

Json parsed(Stat::Sample sample) {
  Stat::assess(sample, {});
  const std::string text = Stat::renderJson(sample);
  EXPECT_EQ(text.find('\n'), text.size() - 1) << "one document on one line";
  return Json::parse(text);
}

TEST(StatRenderJson, SampleFieldsRoundTrip) {
  const Json doc = parsed(StatTest::sampleOf({StatTest::healthyTable("orders")}));
  EXPECT_EQ(doc["root"], "/dev/shm/heron");
  EXPECT_DOUBLE_EQ(doc["time"].get<double>(), 1700000200.5);
  EXPECT_DOUBLE_EQ(doc["interval_seconds"].get<double>(), 1.0);
  EXPECT_DOUBLE_EQ(doc["sample_duration_seconds"].get<double>(), 0.0125);
  EXPECT_EQ(doc["clients_known"], true);
  EXPECT_EQ(doc["root_ok"], true);
  EXPECT_TRUE(doc["root_error"].is_null());
  EXPECT_FALSE(doc.contains("clients_walked"));
  EXPECT_TRUE(doc["problems"].is_array());
  ASSERT_EQ(doc["tables"].size(), 1U);
}

TEST(StatRenderJson, TableFieldsRoundTrip) {
  const Json t = parsed(StatTest::sampleOf({StatTest::healthyTable("orders")}))["tables"][0];
  EXPECT_EQ(t["name"], "orders");
  EXPECT_EQ(t["path"], "/dev/shm/heron/orders");
  EXPECT_EQ(t["state"], "ok");
  EXPECT_EQ(t["owner"]["type"], 2);
  EXPECT_EQ(t["owner"]["type_name"], "HeronTable");
  EXPECT_EQ(t["owner"]["creator_pid"], 100);
  EXPECT_DOUBLE_EQ(t["owner"]["created"].get<double>(), 1700000000.5);
  EXPECT_EQ(t["owner"]["host"], "host1");
  EXPECT_EQ(t["writer"]["pid"], 4711);
  EXPECT_EQ(t["writer"]["ember"]["pid"], 4711);
  EXPECT_EQ(t["writer"]["ember"]["instance"], 2);
  EXPECT_EQ(t["writer"]["restarts"], 2);
  EXPECT_DOUBLE_EQ(t["writer"]["started"].get<double>(), 1700000100.25);
  EXPECT_DOUBLE_EQ(t["writer"]["heartbeat_age_seconds"].get<double>(), 0.25);
  EXPECT_EQ(t["writer"]["heartbeat_clock"], "monotonic");
  EXPECT_EQ(t["writer"]["alive"], true);
  EXPECT_EQ(t["writer"]["maps_table"], true);
  EXPECT_EQ(t["clients"]["known"], true);
  EXPECT_EQ(t["clients"]["writers"], Json::array({4711}));
  EXPECT_EQ(t["clients"]["shadows"], Json::array({4712, 4713}));
  const Json& q = t["queues"];
  EXPECT_EQ(q["active"], 2);
  EXPECT_EQ(q["sequence"], 123456);
  EXPECT_EQ(q["table_version"], 7);
  EXPECT_EQ(q["tables"][0], (Json{{"queue", 1}, {"capacity", 1024}, {"position", 1024}, {"epoch", 3}}));
  EXPECT_EQ(q["tables"][1], (Json{{"queue", 2}, {"capacity", 1024}, {"position", 256}, {"epoch", 4}}));
  EXPECT_DOUBLE_EQ(q["fill_ratio"].get<double>(), 0.25);
  EXPECT_DOUBLE_EQ(q["rate_per_second"].get<double>(), 1000.0);
  EXPECT_DOUBLE_EQ(q["seconds_to_switch"].get<double>(), 0.768);
  const Json& a = t["allocator"];
  EXPECT_EQ(a["regions"], 2);
  EXPECT_EQ(a["bytes"], 32000);
  EXPECT_EQ(a["used_bytes"], 7168);
  EXPECT_EQ(a["free_bytes"], 32000 - 7168);
  EXPECT_EQ(a["free_pages"], 21);
  EXPECT_DOUBLE_EQ(a["occupancy_ratio"].get<double>(), 7168.0 / 32000.0);
  EXPECT_EQ(a["allocations"], 5000);
  EXPECT_EQ(a["releases"], 4918);
  EXPECT_DOUBLE_EQ(a["allocations_per_second"].get<double>(), 50.0);
  EXPECT_DOUBLE_EQ(a["releases_per_second"].get<double>(), 49.5);
  EXPECT_EQ(a["fullest_region"]["id"], 1);
  EXPECT_EQ(a["fullest_region"]["entry_size"], 64);
  EXPECT_DOUBLE_EQ(a["fullest_region"]["occupancy_ratio"].get<double>(), 0.72);
  ASSERT_EQ(a["region_list"].size(), 2U);
  EXPECT_EQ(a["region_list"][1]["id"], 2);
  EXPECT_EQ(a["region_list"][1]["used"], 10);
  EXPECT_EQ(t["problems"], Json::array());
}

TEST(StatRenderJson, WhatWasNotReadIsNullNeverZero) {
  Stat::Table table = StatTest::brokenTable("b");
  const Json t = parsed(StatTest::sampleOf({table}))["tables"][0];
  EXPECT_EQ(t["state"], "broken");
  EXPECT_TRUE(t["owner"].is_null());
  EXPECT_TRUE(t["writer"].is_null());
  EXPECT_TRUE(t["queues"].is_null());
  EXPECT_TRUE(t["allocator"].is_null());
  EXPECT_EQ(t["clients"]["known"], false);
  EXPECT_TRUE(t["clients"]["shadows"].is_null());
  ASSERT_EQ(t["problems"].size(), 1U);
  EXPECT_EQ(t["problems"][0]["severity"], "critical");
  EXPECT_EQ(t["problems"][0]["text"], "/dev/shm/heron/b/owner: bad magic");
}

TEST(StatRenderJson, OneSampleHasNullRates) {
  Stat::Table table = StatTest::healthyTable("t");
  table.queues.ratePerSecond.reset();
  table.queues.secondsToSwitch.reset();
  table.writer.alive = Stat::Seen::Unknown;
  table.writer.mapsTable = Stat::Seen::Unknown;
  const Json t = parsed(StatTest::sampleOf({table}))["tables"][0];
  EXPECT_TRUE(t["queues"]["rate_per_second"].is_null());
  EXPECT_TRUE(t["queues"]["seconds_to_switch"].is_null());
  EXPECT_TRUE(t["writer"]["alive"].is_null());
  EXPECT_TRUE(t["writer"]["maps_table"].is_null());
}

TEST(StatRenderJson, NamesWithQuotesBackslashesNewlinesAndNonAsciiAreEscaped) {
  const std::string name = "a\"b\\c\nd\x01 caf\xc3\xa9 \xe6\x97\xa5 \xf0\x9f\x90\xa6";
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable(name)});
  Stat::assess(sample, {});
  const std::string text = Stat::renderJson(sample);
  EXPECT_NE(text.find(R"("name":"a\"b\\c\nd\u0001 caf\u00e9 \u65e5 \ud83d\udc26")"), std::string::npos) << text;
  for (char c : text.substr(0, text.size() - 1)) {
    EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x80);
  }
  EXPECT_EQ(Json::parse(text)["tables"][0]["name"], name);
}

TEST(StatRenderJson, BytesThatAreNotUtf8BecomeReplacementCharacters) {
  const Json t = parsed(StatTest::sampleOf({StatTest::healthyTable("x\xff y")}))["tables"][0];
  EXPECT_EQ(t["name"], "x\xef\xbf\xbd y");
}

TEST(StatRenderJson, ClientsKnownIsFalseWhenTheWalkCouldNotSeeEveryProcess) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("orders")});
  sample.clientsKnown = false;
  EXPECT_EQ(parsed(sample)["clients_known"], false);
}

TEST(StatRenderJson, ARootThatCannotBeListedSaysWhy) {
  Stat::Sample sample = StatTest::unusableRoot("collection root /x is not a directory");
  const Json doc = parsed(sample);
  EXPECT_EQ(doc["root_ok"], false);
  EXPECT_EQ(doc["root_error"], "collection root /x is not a directory");
}

TEST(StatRenderJson, AnInconsistentRegionIsMarked) {
  Stat::Table table = StatTest::healthyTable("orders");
  table.allocator.regions[0].consistent = false;
  table.allocator.regions[0].inconsistency = "used count 7, bitmap 6, units 100";
  const Json t = parsed(StatTest::sampleOf({table}))["tables"][0];
  EXPECT_EQ(t["allocator"]["region_list"][0]["consistent"], false);
  EXPECT_EQ(t["problems"][0]["severity"], "warning");
  EXPECT_EQ(t["problems"][0]["text"], "region 1 of orders is inconsistent: used count 7, bitmap 6, units 100");
}

}  // namespace

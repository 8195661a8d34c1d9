#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>

#include "Render.h"
#include "stat/SampleFixture.h"

namespace {

std::string exposition(Stat::Sample sample) {
  Stat::assess(sample, {});
  return Stat::renderPrometheus(sample);
}

bool has(const std::string& text, const std::string& line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

TEST(StatRenderPrometheus, EveryLineIsACommentOrASampleOfTheFormat) {
  const std::string text =
      exposition(StatTest::sampleOf({StatTest::healthyTable("orders"), StatTest::brokenTable("b")}));
  const std::regex sample(R"re([a-z_]+(\{([a-z_]+="([^"\\]|\\[\\"n])*",?)+\})? -?[0-9.e+-]+)re");
  const std::regex comment(R"re(# (HELP [a-z_]+ .+|TYPE [a-z_]+ (gauge|counter)))re");
  std::istringstream in(text);
  std::string line;
  int samples = 0;
  while (std::getline(in, line)) {
    const bool ok = std::regex_match(line, sample) || std::regex_match(line, comment);
    EXPECT_TRUE(ok) << line;
    samples += line[0] != '#' ? 1 : 0;
  }
  EXPECT_GT(samples, 20);
  EXPECT_EQ(text.back(), '\n');
}

TEST(StatRenderPrometheus, FiguresOfAHealthyTable) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("orders")});
  sample.clientsKnown = true;
  const std::string text = exposition(sample);
  for (const char* line : {"# TYPE heron_writer_up gauge",
                           "heron_writer_up{table=\"orders\"} 1",
                           "heron_writer_heartbeat_age_seconds{table=\"orders\"} 0.25",
                           "# TYPE heron_writer_restarts_total counter",
                           "heron_writer_restarts_total{table=\"orders\"} 2",
                           "heron_table_state{table=\"orders\",state=\"ok\"} 1",
                           "heron_table_state{table=\"orders\",state=\"dead\"} 0",
                           "heron_table_state{table=\"orders\",state=\"stale\"} 0",
                           "heron_table_state{table=\"orders\",state=\"broken\"} 0",
                           "heron_table_shadows{table=\"orders\"} 2",
                           "# TYPE heron_queue_sequence_total counter",
                           "heron_queue_sequence_total{table=\"orders\"} 123456",
                           "heron_queue_capacity{table=\"orders\",queue=\"1\"} 1024",
                           "heron_queue_position{table=\"orders\",queue=\"2\"} 256",
                           "heron_queue_active{table=\"orders\"} 2",
                           "heron_allocator_bytes{table=\"orders\",state=\"used\"} 7168",
                           "heron_allocator_bytes{table=\"orders\",state=\"free\"} 24832",
                           "heron_allocator_occupancy_ratio{table=\"orders\"} 0.224",
                           "heron_allocator_allocations_total{table=\"orders\"} 5000",
                           "heron_allocator_releases_total{table=\"orders\"} 4918",
                           "heron_allocator_regions{table=\"orders\"} 2",
                           "heron_queue_fill_ratio{table=\"orders\"} 0.25",
                           "heron_queue_seconds_to_switch{table=\"orders\"} 0.768",
                           "# TYPE heron_writer_start_time_seconds gauge",
                           "heron_writer_start_time_seconds{table=\"orders\"} 1700000100.25",
                           "heron_stat_tables 1",
                           "heron_stat_sample_duration_seconds 0.0125",
                           "heron_stat_root_ok 1",
                           "heron_stat_clients_known 1"}) {
    EXPECT_TRUE(has(text, line)) << line << '\n' << text;
  }
}

TEST(StatRenderPrometheus, TheCollectionItselfAsTheSampleSaysIt) {
  Stat::Sample sample = StatTest::sampleOf({});
  sample.rootOk = false;
  sample.rootError = "no such directory";
  sample.clientsKnown = false;
  const std::string text = exposition(sample);
  for (const char* line : {"heron_stat_root_ok 0", "heron_stat_clients_known 0", "heron_stat_tables 0"}) {
    EXPECT_TRUE(has(text, line)) << line << '\n' << text;
  }
  EXPECT_TRUE(std::regex_search(text, std::regex(R"(\nheron_stat_build_info\{version="[0-9]+\.[0-9]+[^"]*"\} 1\n)")))
      << text;
}

// A sample whose tables are all broken, half read or odd still renders
// whole: one unreadable table never costs the scrape.
TEST(StatRenderPrometheus, BrokenAndHalfReadTablesRenderWithTheOthers) {
  Stat::Table halfRead = StatTest::healthyTable("half");
  halfRead.fileErrors.push_back("/dev/shm/heron/half: cannot list: Permission denied");
  halfRead.allocator.known = false;  // regions seen before the listing failed
  halfRead.queues = Stat::Queues{};
  Stat::Table noHeartbeat = StatTest::healthyTable("quiet");
  noHeartbeat.writer.heartbeatAgeSeconds.reset();
  noHeartbeat.queues.secondsToSwitch.reset();
  const std::string text = exposition(StatTest::sampleOf(
      {StatTest::brokenTable("a"), halfRead, StatTest::healthyTable("ok"), noHeartbeat, StatTest::brokenTable("z")}));
  for (const char* line :
       {"heron_table_state{table=\"a\",state=\"broken\"} 1", "heron_table_state{table=\"half\",state=\"broken\"} 1",
        "heron_table_state{table=\"z\",state=\"broken\"} 1", "heron_queue_fill_ratio{table=\"ok\"} 0.25",
        "heron_stat_tables 5"}) {
    EXPECT_TRUE(has(text, line)) << line << '\n' << text;
  }
  for (const char* absent :
       {"heron_region_occupancy_ratio{table=\"half\"", "heron_regions{table=\"half\"",
        "heron_queue_fill_ratio{table=\"half\"", "heron_queue_seconds_to_switch{table=\"quiet\"",
        "heron_writer_heartbeat_age_seconds{table=\"quiet\"", "heron_writer_start_time_seconds{table=\"a\""}) {
    EXPECT_EQ(text.find(absent), std::string::npos) << absent << '\n' << text;
  }
}

// Regions of one entry size, replaced again and again by the writer: the
// default series stay one per table and entry size, whatever the ids.
Stat::Table churnedTable(std::uint32_t firstId) {
  Stat::Table table = StatTest::healthyTable("churn");
  table.allocator.regions = {{firstId, 64, 100, 50, 1, true, {}},
                             {firstId + 1, 64, 100, 95, 0, true, {}},
                             {firstId + 2, 4096, 10, 1, 9, true, {}}};
  return table;
}

TEST(StatRenderPrometheus, RegionSeriesArePerEntrySizeByDefault) {
  const std::string text = exposition(StatTest::sampleOf({churnedTable(4000)}));
  for (const char* line :
       {"heron_regions{table=\"churn\",entry_size=\"64\"} 2", "heron_regions{table=\"churn\",entry_size=\"4096\"} 1",
        "heron_region_units{table=\"churn\",entry_size=\"64\",state=\"used\"} 145",
        "heron_region_units{table=\"churn\",entry_size=\"64\",state=\"free\"} 55",
        "heron_region_units{table=\"churn\",entry_size=\"4096\",state=\"free\"} 9"}) {
    EXPECT_TRUE(has(text, line)) << line << '\n' << text;
  }
  // The fullest region of each size.
  EXPECT_TRUE(has(text, "heron_region_occupancy_ratio{table=\"churn\",entry_size=\"64\"} 0.95"));
  EXPECT_TRUE(has(text, "heron_region_occupancy_ratio{table=\"churn\",entry_size=\"4096\"} 0.1"));
  EXPECT_EQ(text.find("region=\""), std::string::npos) << text;
  // Other ids, the same series.
  auto seriesOf = [](const std::string& exposition) {
    std::string names;
    std::istringstream in(exposition);
    for (std::string line; std::getline(in, line);) {
      names += line.substr(0, line.rfind(' ')) + "\n";
    }
    return names;
  };
  EXPECT_EQ(seriesOf(text), seriesOf(exposition(StatTest::sampleOf({churnedTable(17)}))));
}

TEST(StatRenderPrometheus, RegionSeriesPerIdOnRequest) {
  Stat::Sample sample = StatTest::sampleOf({churnedTable(4000)});
  sample.perRegionSeries = true;
  const std::string text = exposition(sample);
  for (const char* line : {"heron_region_occupancy_ratio{table=\"churn\",entry_size=\"64\",region=\"4000\"} 0.5",
                           "heron_region_occupancy_ratio{table=\"churn\",entry_size=\"64\",region=\"4001\"} 0.95",
                           "heron_region_occupancy_ratio{table=\"churn\",entry_size=\"4096\",region=\"4002\"} 0.1"}) {
    EXPECT_TRUE(has(text, line)) << line << '\n' << text;
  }
  EXPECT_FALSE(has(text, "heron_region_occupancy_ratio{table=\"churn\",entry_size=\"64\"} 0.95"));
  EXPECT_TRUE(has(text, "heron_regions{table=\"churn\",entry_size=\"64\"} 2"));
}

TEST(StatRenderPrometheus, UnknownFiguresAreLeftOutNotZero) {
  Stat::Table table = StatTest::healthyTable("t");
  table.clients = Stat::Clients{};
  const std::string text = exposition(StatTest::sampleOf({table, StatTest::brokenTable("b")}));
  EXPECT_EQ(text.find("heron_table_shadows{"), std::string::npos);
  EXPECT_EQ(text.find("heron_queue_sequence_total{table=\"b\"}"), std::string::npos);
  EXPECT_TRUE(has(text, "heron_table_state{table=\"b\",state=\"broken\"} 1"));
  // A table meant to have a writer, none known: down.
  EXPECT_TRUE(has(text, "heron_writer_up{table=\"b\"} 0"));
}

TEST(StatRenderPrometheus, AnArchiveWithoutWriterHasNoWriterMetrics) {
  Stat::Table table = StatTest::healthyTable("old");
  table.identity.type = 3;
  table.writer = Stat::Writer{};
  const std::string text = exposition(StatTest::sampleOf({table}));
  EXPECT_EQ(text.find("heron_writer_up{"), std::string::npos);
  EXPECT_EQ(text.find("heron_writer_start_time_seconds{"), std::string::npos);
  EXPECT_TRUE(has(text, "heron_table_state{table=\"old\",state=\"ok\"} 1"));
}

TEST(StatRenderPrometheus, AnArchiveWhoseOldWriterIsGoneHasNoWriterMetrics) {
  Stat::Table table = StatTest::healthyTable("old");
  table.identity.type = 3;
  table.writer.alive = Stat::Seen::No;
  const std::string text = exposition(StatTest::sampleOf({table}));
  EXPECT_EQ(text.find("heron_writer_up{"), std::string::npos) << text;
  EXPECT_EQ(text.find("heron_writer_start_time_seconds{"), std::string::npos) << text;
}

TEST(StatRenderPrometheus, LabelValuesAreEscaped) {
  const std::string text =
      exposition(StatTest::sampleOf({StatTest::healthyTable("a\"b\\c\nd\x1b"
                                                            "e caf\xc3\xa9\xff")}));
  EXPECT_TRUE(has(text, "heron_writer_up{table=\"a\\\"b\\\\c\\nd\\\\x1be caf\xc3\xa9\xef\xbf\xbd\"} 1")) << text;
  for (char c : text) {
    EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 && c != '\n');
  }
}

}  // namespace

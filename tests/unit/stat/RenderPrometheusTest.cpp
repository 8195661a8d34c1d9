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
  const std::string text = exposition(StatTest::sampleOf({StatTest::healthyTable("orders")}));
  EXPECT_TRUE(has(text, "# TYPE heron_writer_up gauge"));
  EXPECT_TRUE(has(text, "heron_writer_up{table=\"orders\"} 1"));
  EXPECT_TRUE(has(text, "heron_writer_heartbeat_age_seconds{table=\"orders\"} 0.25"));
  EXPECT_TRUE(has(text, "# TYPE heron_writer_restarts_total counter"));
  EXPECT_TRUE(has(text, "heron_writer_restarts_total{table=\"orders\"} 2"));
  EXPECT_TRUE(has(text, "heron_table_state{table=\"orders\",state=\"ok\"} 1"));
  EXPECT_TRUE(has(text, "heron_table_state{table=\"orders\",state=\"dead\"} 0"));
  EXPECT_TRUE(has(text, "heron_table_state{table=\"orders\",state=\"stale\"} 0"));
  EXPECT_TRUE(has(text, "heron_table_state{table=\"orders\",state=\"broken\"} 0"));
  EXPECT_TRUE(has(text, "heron_table_shadows{table=\"orders\"} 2"));
  EXPECT_TRUE(has(text, "# TYPE heron_queue_sequence_total counter"));
  EXPECT_TRUE(has(text, "heron_queue_sequence_total{table=\"orders\"} 123456"));
  EXPECT_TRUE(has(text, "heron_queue_capacity{table=\"orders\",queue=\"1\"} 1024"));
  EXPECT_TRUE(has(text, "heron_queue_position{table=\"orders\",queue=\"2\"} 256"));
  EXPECT_TRUE(has(text, "heron_queue_active{table=\"orders\"} 2"));
  EXPECT_TRUE(has(text, "heron_allocator_bytes{table=\"orders\",state=\"used\"} 7168"));
  EXPECT_TRUE(has(text, "heron_allocator_bytes{table=\"orders\",state=\"free\"} 24832"));
  EXPECT_TRUE(has(text, "heron_allocator_occupancy_ratio{table=\"orders\"} 0.224"));
  EXPECT_TRUE(has(text, "heron_allocator_allocations_total{table=\"orders\"} 5000"));
  EXPECT_TRUE(has(text, "heron_allocator_releases_total{table=\"orders\"} 4918"));
  EXPECT_TRUE(has(text, "heron_allocator_regions{table=\"orders\"} 2"));
  EXPECT_TRUE(has(text, "heron_region_occupancy_ratio{table=\"orders\",region=\"1\"} 0.72"));
  EXPECT_TRUE(has(text, "heron_region_occupancy_ratio{table=\"orders\",region=\"2\"} 0.1"));
  EXPECT_TRUE(has(text, "heron_stat_tables 1"));
  EXPECT_TRUE(has(text, "heron_stat_sample_duration_seconds 0.0125"));
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
  EXPECT_TRUE(has(text, "heron_table_state{table=\"old\",state=\"ok\"} 1"));
}

TEST(StatRenderPrometheus, AnArchiveWhoseOldWriterIsGoneHasNoWriterMetrics) {
  Stat::Table table = StatTest::healthyTable("old");
  table.identity.type = 3;
  table.writer.alive = Stat::Seen::No;
  const std::string text = exposition(StatTest::sampleOf({table}));
  EXPECT_EQ(text.find("heron_writer_up{"), std::string::npos) << text;
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

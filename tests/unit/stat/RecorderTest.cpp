// The flight recorder's files: within the byte budget whatever runs, a
// file cut mid-frame keeps its earlier samples, the sample nearest a time
// is found, and a recorded document reads back into the same sample.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Bundle.h"
#include "Recorder.h"
#include "Render.h"
#include "SampleFixture.h"
#include "support/TempDir.h"

namespace {

// The "time" of a recorded sample.
double timeOf(const std::string& sampleJson) { return nlohmann::json::parse(sampleJson).at("time").get<double>(); }

class RecorderTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.empty()); }

  static std::string line(double time) {
    Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("orders")});
    sample.timeSeconds = time;
    sample.tables[0].queues.sequence = static_cast<std::uint64_t>(time);
    return Stat::renderJson(sample);
  }
  std::uint64_t total() const {
    std::uint64_t bytes = 0;
    for (const Stat::RecordFile& file : Stat::recordFiles(dir_)) {
      bytes += file.bytes;
    }
    return bytes;
  }

  HeronTest::TempDir temp_{"heron-recorder-test"};
  const std::string dir_ = temp_.path();
};

TEST_F(RecorderTest, StaysWithinItsBudgetAcrossRestartsOldestFirst) {
  constexpr std::uint64_t kBudget = 16 << 10;
  for (int run = 0; run < 2; ++run) {
    Stat::Recorder recorder(dir_, kBudget);
    std::string error;
    ASSERT_TRUE(recorder.open(error)) << error;
    for (int i = 0; i < 200; ++i) {
      const double time = 1700000000 + run * 1000 + i;
      ASSERT_TRUE(recorder.append(line(time), time, error)) << error;
      ASSERT_LE(total(), kBudget);
    }
  }
  std::string sample;
  std::string error;
  ASSERT_TRUE(Stat::recordedSample(dir_, -1, sample, error)) << error;
  EXPECT_EQ(sample, line(1700001199).substr(0, line(1700001199).size() - 1));
  // The oldest went first: the first run's early samples are gone, and
  // the newest are all there.
  ASSERT_TRUE(Stat::recordedSample(dir_, 1700000000, sample, error));
  EXPECT_GT(timeOf(sample), 1700000100) << sample.substr(0, 40);
  ASSERT_TRUE(Stat::recordedSample(dir_, 1700001195, sample, error));
  EXPECT_EQ(timeOf(sample), 1700001195) << sample.substr(0, 40);
}

TEST_F(RecorderTest, FindsTheNearestSampleAndSurvivesACutFile) {
  Stat::Recorder recorder(dir_, 1 << 20);
  std::string error;
  ASSERT_TRUE(recorder.open(error));
  for (double time : {100.0, 200.0, 300.0}) {
    ASSERT_TRUE(recorder.append(line(time), time, error)) << error;
  }
  std::string sample;
  ASSERT_TRUE(Stat::recordedSample(dir_, 240, sample, error));
  EXPECT_EQ(timeOf(sample), 200.0) << sample.substr(0, 40);
  // A crash in the middle of the last frame.
  const std::vector<Stat::RecordFile> files = Stat::recordFiles(dir_);
  ASSERT_EQ(files.size(), 1U);
  ASSERT_EQ(::truncate(files[0].path.c_str(), static_cast<off_t>(files[0].bytes - 20)), 0);
  ASSERT_TRUE(Stat::recordedSample(dir_, 1000, sample, error)) << error;
  EXPECT_EQ(timeOf(sample), 200.0) << sample.substr(0, 40);
  // Garbage where a recording should be: no sample, no crash.
  std::ofstream(files[0].path, std::ios::trunc) << "not zstd at all";
  EXPECT_FALSE(Stat::recordedSample(dir_, 1000, sample, error));
  EXPECT_NE(error.find("no recorded sample"), std::string::npos);
}

// The sample nearest a time is found from the files' names and a search
// inside one file (and the first sample of the next): every time across
// many files, at and between samples, before the first and after the last,
// gets the same answer as a look at every sample would give.
TEST_F(RecorderTest, FindsTheNearestSampleAcrossManyFiles) {
  Stat::Recorder recorder(dir_, 64 << 10);
  std::string error;
  ASSERT_TRUE(recorder.open(error));
  std::vector<double> times;
  for (double time = 1000; time < 1120; time += 2) {
    ASSERT_TRUE(recorder.append(line(time), time, error)) << error;
    times.push_back(time);
  }
  ASSERT_GE(Stat::recordFiles(dir_).size(), 4U);
  std::string sample;
  for (double at = 990; at <= 1130; at += 0.5) {
    double expected = times.front();
    for (double time : times) {
      // The earlier of two as near wins, as it did in a full scan.
      expected = std::fabs(time - at) < std::fabs(expected - at) ? time : expected;
    }
    ASSERT_TRUE(Stat::recordedSample(dir_, at, sample, error)) << error;
    EXPECT_EQ(timeOf(sample), expected) << "at " << at;
  }
  ASSERT_TRUE(Stat::recordedSample(dir_, -1, sample, error));
  EXPECT_EQ(timeOf(sample), times.back());
  // A newer file with nothing readable in it: the latest is still found,
  // and so is a time after its name's.
  const std::string garbage = dir_ + "/" + Stat::kRecordPrefix + "2000000" + Stat::kRecordSuffix;
  std::ofstream(garbage) << "not zstd";
  ASSERT_TRUE(Stat::recordedSample(dir_, -1, sample, error));
  EXPECT_EQ(timeOf(sample), times.back());
  ASSERT_TRUE(Stat::recordedSample(dir_, 2500, sample, error));
  EXPECT_EQ(timeOf(sample), times.back());
}

TEST(RecordedSample, ReadsBackIntoTheSameSample) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("orders"), StatTest::brokenTable("bad")});
  const Stat::Thresholds thresholds;
  Stat::assess(sample, thresholds);
  const std::string text = Stat::renderJson(sample);
  Stat::Sample again;
  std::string error;
  ASSERT_TRUE(Stat::sampleFromJson(text, thresholds, again, error)) << error;
  EXPECT_EQ(Stat::renderJson(again), text);
  Stat::assess(again, thresholds);
  EXPECT_EQ(Stat::renderJson(again), text);
  EXPECT_FALSE(Stat::sampleFromJson("{\"time\": 1}", thresholds, again, error));
}

TEST(RecordedSample, ParsesTimes) {
  double seconds = 0;
  ASSERT_TRUE(Stat::parseTime("1700000000.5", seconds));
  EXPECT_DOUBLE_EQ(seconds, 1700000000.5);
  ASSERT_TRUE(Stat::parseTime("2023-11-14 22:13:20", seconds));
  EXPECT_DOUBLE_EQ(seconds, 1700000000);
  ASSERT_TRUE(Stat::parseTime("2023-11-14T22:13:20Z", seconds));
  EXPECT_DOUBLE_EQ(seconds, 1700000000);
  EXPECT_FALSE(Stat::parseTime("yesterday", seconds));
  EXPECT_FALSE(Stat::parseTime("2023-11-14", seconds));
  EXPECT_FALSE(Stat::parseTime("-5", seconds));
}

}  // namespace

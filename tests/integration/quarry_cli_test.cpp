// The region allocator through the real binaries: heron-sim create makes the
// table, a QuarryWriter fills its regions, heron prints them.
//
// The dump road also initialises the relay reader; tests that need it skip
// when heron-sim create made no relay.1 file.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"
#include "Quarry/Offset.h"
#include "Quarry/QuarryWriter.h"
#include "support/Child.h"
#include "support/Ended.h"
#include "support/LiveQuarryWriter.h"
#include "support/Run.h"
#include "support/TempDir.h"
#include "unit/quarry/SmallTable.h"

namespace {

using HeronTest::readFile;
using Outcome = HeronTest::RunResult;

class QuarryCli : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(root_.empty());
    ::setenv("HERON_ROOT", root_.c_str(), 1);
  }

  // A program of the build on this root; a hang ends in a timed-out result.
  Outcome run(const std::string& program, const std::vector<std::string>& args, int timeoutSeconds = 60) {
    std::vector<std::string> argv{HeronTest::binary(program)};
    argv.insert(argv.end(), args.begin(), args.end());
    return HeronTest::run(argv, {"HERON_ROOT=" + root_}, "", "", timeoutSeconds);
  }
  Outcome heron(const std::vector<std::string>& args, int timeoutSeconds = 60) {
    return run("heron", args, timeoutSeconds);
  }
  Outcome sim(const std::vector<std::string>& args) { return run("heron-sim", args); }

  std::string table(const std::string& name) const { return root_ + "/" + name; }
  bool hasRelay(const std::string& name) const {
    struct stat st {};
    return ::stat((table(name) + "/relay.1").c_str(), &st) == 0;
  }

  // Table "t": regions 1 (16 x 4: alpha, gamma; beta released) and
  // 2 (8 x 2: 01234567).
  void makeSmallTable() {
    Outcome created = sim({"create", "t", "--regions", "16x4,8x2"});
    ASSERT_EQ(created.status, 0) << created.err;
    Beacon::Platform::DebugHandler handler("QuarryCli", 0);
    Quarry::QuarryWriter writer(handler, Mem::RootPath(table("t")));
    std::string error;
    ASSERT_TRUE(writer.open(error)) << error;
    ASSERT_TRUE(QuarryTest::fillSmallTable(writer, 1, 2));
  }

  // The small table, which heron can dump end to end only with its queue.
  void makeDumpableSmallTable() {
    ASSERT_NO_FATAL_FAILURE(makeSmallTable());
    ASSERT_TRUE(hasRelay("t")) << "heron-sim create made no relay.1";
  }

  HeronTest::TempDir rootDir_{"quarry-cli"};
  std::string root_ = rootDir_.path();
};

using QuarryTest::kRegionOne;
using QuarryTest::kRegionTwo;

const char* const kRegionOneWithEmpty =
    "Region 1: entry size 16, units 4, used 2, generation 8\n"
    "  offset        unit    size  preview\n"
    "  0x00100000       0      16  61 6c 70 68 61 00 00 00 00 00 00 00 00 00 00 00  |alpha...........|\n"
    "  0x00100001       1      16  62 65 74 61 00 00 00 00 00 00 00 00 00 00 00 00  |beta............|  free\n"
    "  0x00100002       2      16  67 61 6d 6d 61 00 00 00 00 00 00 00 00 00 00 00  |gamma...........|\n"
    "  0x00100003       3      16  00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00  |................|  free\n";
const char* const kRegionTwoWithEmpty =
    "Region 2: entry size 8, units 2, used 1, generation 2\n"
    "  offset        unit    size  preview\n"
    "  0x00200000       0       8  30 31 32 33 34 35 36 37                          |01234567|\n"
    "  0x00200001       1       8  00 00 00 00 00 00 00 00                          |........|  free\n";
using QuarryTest::kTotals;
const char* const kRows =
    "  region  entry size     units      used  occupancy  free pages         bytes\n"
    "       2           8         2         1        50%           0            16\n"
    "       1          16         4         2        50%           0            64\n";

std::string withoutTiming(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  std::string kept;
  while (std::getline(lines, line)) {
    if (line.compare(0, 16, "Relay scanned in") != 0) {
      kept += line + "\n";
    }
  }
  return kept;
}

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

TEST_F(QuarryCli, SimCreateMakesTheAllocatorAndTheRegionsAsked) {
  Outcome created = sim({"create", "t", "--regions", "64x256,4096x32"});
  ASSERT_EQ(created.status, 0) << created.err;
  struct stat st {};
  EXPECT_EQ(::stat((table("t") + "/quarry").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 64);
  ASSERT_EQ(::stat((table("t") + "/region.1").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 4096 + 16384);
  ASSERT_EQ(::stat((table("t") + "/region.2").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 4096 + 32 * 4096);
  EXPECT_NE(::stat((table("t") + "/region.3").c_str(), &st), 0);
}

TEST_F(QuarryCli, SimCreateMakesADefaultMixOfRegions) {
  ASSERT_EQ(sim({"create", "t"}).status, 0);
  struct stat st {};
  EXPECT_EQ(::stat((table("t") + "/region.3").c_str(), &st), 0);
}

// A bad region list is a usage error, found before anything is created.
TEST_F(QuarryCli, SimCreateRefusesABadRegionList) {
  Outcome created = sim({"create", "t", "--regions", "64by256"});
  EXPECT_EQ(created.status, 2);
  EXPECT_NE(created.err.find("--regions"), std::string::npos) << created.err;
  struct stat st {};
  EXPECT_NE(::stat((root_ + "/t").c_str(), &st), 0) << "the table directory was created";
}

TEST_F(QuarryCli, MissingAllocatorFailsToInitialize) {
  ASSERT_EQ(sim({"create", "t"}).status, 0);
  ASSERT_EQ(::unlink((table("t") + "/quarry").c_str()), 0);
  Outcome r = heron({"-s", "t"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Table Name: t\n\nFailed to initialize QuarryScanner\n");
  EXPECT_EQ(r.out, "");
}

TEST_F(QuarryCli, DamagedAllocatorFailsToInitialize) {
  ASSERT_EQ(sim({"create", "t"}).status, 0);
  {
    std::ofstream damaged(table("t") + "/quarry", std::ios::binary | std::ios::trunc);
    damaged << std::string(64, '\x5a');
  }
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"-s", "t"}, {"-R", "t"}, {"-d", "t"}, {"-a", "t"}, {"t"}}) {
    Outcome r = heron(args);
    EXPECT_EQ(r.status, 1) << args[0];
    EXPECT_EQ(r.err, "Table Name: t\n\nFailed to initialize QuarryScanner\n") << args[0];
  }
}

TEST_F(QuarryCli, TruncatedAllocatorFailsToInitialize) {
  ASSERT_EQ(sim({"create", "t"}).status, 0);
  ASSERT_EQ(::truncate((table("t") + "/quarry").c_str(), 10), 0);
  Outcome r = heron({"-R", "t"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Failed to initialize QuarryScanner"), std::string::npos);
}

TEST_F(QuarryCli, StatsEndWithTheAllocatorStatistics) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  Outcome r = heron({"-s", "t"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(endsWith(r.out, kTotals)) << r.out;
  EXPECT_NE(r.out.find("Relay headers:"), std::string::npos);
  EXPECT_LT(r.out.find("Relay headers:"), r.out.find("Region allocator statistics"));
}

TEST_F(QuarryCli, DetailAddsTheRegionRows) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  Outcome r = heron({"-d", "t"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(endsWith(r.out, std::string(kTotals) + kRows)) << r.out;
}

TEST_F(QuarryCli, SortByOccupancyWithStats) {
  Outcome created = sim({"create", "t", "--regions", "64x100,64x100,16x10"});
  ASSERT_EQ(created.status, 0) << created.err;
  ASSERT_TRUE(hasRelay("t")) << "heron-sim create made no relay.1";
  {
    Beacon::Platform::DebugHandler handler("QuarryCli", 0);
    Quarry::QuarryWriter writer(handler, Mem::RootPath(table("t")));
    std::string error;
    ASSERT_TRUE(writer.open(error)) << error;
    for (int i = 0; i < 50; ++i) writer.allocate(1);
    for (int i = 0; i < 10; ++i) writer.allocate(2);
    for (int i = 0; i < 5; ++i) writer.allocate(3);
  }
  const std::string rowsByOccupancy =
      "  region  entry size     units      used  occupancy  free pages         bytes\n"
      "       3          16        10         5        50%           0           160\n"
      "       2          64       100        10        10%           1          6400\n"
      "       1          64       100        50        50%           1          6400\n";
  Outcome r = heron({"-s", "-O", "t"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(endsWith(r.out, rowsByOccupancy)) << r.out;
  Outcome d = heron({"-d", "t"});
  EXPECT_TRUE(endsWith(d.out,
                       "       3          16        10         5        50%           0           160\n"
                       "       1          64       100        50        50%           1          6400\n"
                       "       2          64       100        10        10%           1          6400\n"))
      << d.out;
}

TEST_F(QuarryCli, StatsWithQueuesPrintTheStatisticsOnly) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  Outcome r = heron({"-s", "-q", "t"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(endsWith(r.out, kTotals)) << r.out;
  EXPECT_EQ(r.out.find("Region 1:"), std::string::npos);
}

TEST_F(QuarryCli, RegionsDumpEveryRegion) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  Outcome r = heron({"-R", "t"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string(kRegionOne) + kRegionTwo);
}

TEST_F(QuarryCli, RegionsWithEmptyEntries) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  Outcome r = heron({"-R", "-e", "t"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string(kRegionOneWithEmpty) + kRegionTwoWithEmpty);
}

TEST_F(QuarryCli, ChosenRegionsOnlyRepeatable) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  Outcome two = heron({"-r", "2", "t"});
  EXPECT_EQ(two.status, 0) << two.err;
  EXPECT_EQ(two.out, kRegionTwo);
  Outcome both = heron({"-r", "2", "-r", "1", "-r", "2", "t"});
  EXPECT_EQ(both.out, std::string(kRegionOne) + kRegionTwo);
  Outcome missing = heron({"-r", "7", "t"});
  EXPECT_EQ(missing.out, "Region 7: not found\n");
}

TEST_F(QuarryCli, AllDumpsRegionsThenQueues) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  Outcome r = heron({"-a", "t"});
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string regions = std::string(kRegionOne) + kRegionTwo;
  EXPECT_EQ(r.out.compare(0, regions.size(), regions), 0) << r.out;
}

TEST_F(QuarryCli, OutputFileHoldsTheWholeStatisticsSectionInOrder) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  // Outside the collection root: heron refuses to write into it.
  HeronTest::TempDir outputs("quarry-cli-output");
  const std::string file = outputs.path() + "/stats.txt";
  {
    std::ofstream stale(file);
    stale << std::string(10000, 'x') << '\n';  // truncated by heron first
  }
  Outcome toFile = heron({"-f", file, "-d", "t"});
  EXPECT_EQ(toFile.status, 0) << toFile.err;
  EXPECT_EQ(toFile.out, "");
  Outcome toStdout = heron({"-d", "t"});
  EXPECT_EQ(readFile(file), toStdout.out);
  EXPECT_TRUE(endsWith(readFile(file), std::string(kTotals) + kRows));
}

TEST_F(QuarryCli, OutputFileHoldsRegionsThenQueues) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  HeronTest::TempDir outputs("quarry-cli-output");
  const std::string file = outputs.path() + "/dump.txt";
  Outcome toFile = heron({"-f", file, "-a", "t"});
  EXPECT_EQ(toFile.status, 0) << toFile.err;
  Outcome toStdout = heron({"-a", "t"});
  // The queue scan's timing line differs from run to run.
  EXPECT_EQ(withoutTiming(readFile(file)), withoutTiming(toStdout.out));
  const std::string regions = std::string(kRegionOne) + kRegionTwo;
  EXPECT_EQ(readFile(file).compare(0, regions.size(), regions), 0);
}

TEST_F(QuarryCli, ShortRegionIsReportedByTheDump) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  ASSERT_EQ(::truncate((table("t") + "/region.1").c_str(), 100), 0);
  Outcome r = heron({"-R", "t"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string("Region 1: file is 100 bytes, header claims 8192; skipped\n") + kRegionTwo);
}

TEST_F(QuarryCli, FifoInPlaceOfARegionIsReportedNotWaitedOn) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  ASSERT_EQ(::mkfifo((table("t") + "/region.9").c_str(), 0644), 0);
  Outcome stats = heron({"-s", "t"}, 20);
  EXPECT_EQ(stats.status, 0) << stats.err;
  EXPECT_TRUE(endsWith(stats.out, "  region 9: not a regular file; skipped\n")) << stats.out;
  Outcome dump = heron({"-R", "t"}, 20);
  EXPECT_EQ(dump.status, 0) << dump.err;
  EXPECT_EQ(dump.out, std::string(kRegionOne) + kRegionTwo + "Region 9: not a regular file; skipped\n");
}

// Every table file a reader opens: a FIFO there ends the run with a message
// (or an NA figure), never a hang: a run still going after 20 s is killed
// and fails.
// -w reads the table's figures as -A does, without walking every process on
// the machine (other tests' deliberately shrinking files end -A with the
// documented assertion).
TEST_F(QuarryCli, FifoInPlaceOfATableFileNeverBlocks) {
  for (const char* file : {"quarry", "relay.1", "relay.2", "owner"}) {
    ASSERT_EQ(sim({"create", "t"}).status, 0);
    const std::string path = table("t") + "/" + file;
    ASSERT_EQ(::unlink(path.c_str()), 0) << file;
    ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0) << file;
    for (const char* option : {"-s", "-a", "-w"}) {
      Outcome r = heron({option, "t"}, 20);
      EXPECT_TRUE(r.status == 0 || r.status == 1) << file << " " << option << " t: " << r.describe() << " " << r.err;
    }
    std::error_code error;
    std::filesystem::remove_all(table("t"), error);
    ASSERT_FALSE(error) << error.message();
  }
}

TEST_F(QuarryCli, HeronReadsAFullSpeedWriterWithoutCrashOrForeignEntries) {
  ASSERT_EQ(sim({"create", "t", "--regions", "16x64,64x64"}).status, 0);
  ASSERT_TRUE(hasRelay("t")) << "heron-sim create made no relay.1";
  HeronTest::Child writer(
      [&] { return HeronTest::runLiveWriter(Mem::RootPath(table("t")), std::chrono::milliseconds(2000)); });
  ASSERT_TRUE(writer.started()) << writer.error();
  unsigned runs = 0;
  unsigned entries = 0;
  const std::vector<std::vector<std::string>> options{{"-s", "t"}, {"-d", "t"}, {"-R", "t"}, {"-s", "-O", "t"}};
  while (writer.running()) {
    Outcome r = heron(options[runs % 4]);
    ASSERT_EQ(r.status, 0) << r.err;
    std::istringstream lines(r.out);
    std::string line;
    while (std::getline(lines, line)) {
      if (line.compare(0, 4, "  0x") != 0) continue;
      const std::size_t open = line.find('|');
      ASSERT_NE(open, std::string::npos) << line;
      const std::string text = line.substr(open + 1, 16);
      unsigned sequence = 0;
      ASSERT_EQ(std::sscanf(text.c_str(), "%8x", &sequence), 1) << line;
      EXPECT_EQ(text, HeronTest::payload(sequence)) << line;
      ++entries;
    }
    ++runs;
  }
  EXPECT_TRUE(HeronTest::endedWell(writer.wait()));
  EXPECT_GT(runs, 4U);
  EXPECT_GT(entries, 0U);
}

namespace {

// Overwrites the 32-bit word at `offset` of `path`.
bool patchWord(const std::string& path, off_t offset, std::uint32_t value) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(offset);
  file.write(reinterpret_cast<const char*>(&value), sizeof value);
  return static_cast<bool>(file);
}

constexpr off_t kUsedUnitsAt = 16;

TEST_F(QuarryCli, UsedCountAboveTheUnitCountIsClampedAndMarked) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  ASSERT_TRUE(patchWord(table("t") + "/region.1", kUsedUnitsAt, 0xFFFFFFFFU));
  Outcome detail = heron({"-d", "t"});
  EXPECT_EQ(detail.status, 0) << detail.err;
  // Region 1 counts as full: 64 + 8 of 80 bytes.
  EXPECT_NE(detail.out.find("  used          72\n"), std::string::npos) << detail.out;
  EXPECT_NE(detail.out.find("  occupancy     90%\n"), std::string::npos) << detail.out;
  EXPECT_TRUE(endsWith(detail.out,
                       "       1          16         4         4       100%           0            64"
                       "  inconsistent: used count 4294967295, bitmap 2\n"))
      << detail.out;
  Outcome who = heron({"-w", "t"});
  EXPECT_EQ(who.status, 0) << who.err;
  EXPECT_NE(who.out.find("numRegions:2 totalSize:80B pagesFree:0 occupancyRate:90%\n"), std::string::npos) << who.out;
}

TEST_F(QuarryCli, BitmapThatDisagreesWithTheUsedCountIsMarked) {
  ASSERT_NO_FATAL_FAILURE(makeDumpableSmallTable());
  ASSERT_TRUE(patchWord(table("t") + "/region.1", kUsedUnitsAt, 1));
  Outcome detail = heron({"-d", "t"});
  EXPECT_EQ(detail.status, 0) << detail.err;
  EXPECT_TRUE(endsWith(detail.out,
                       "       1          16         4         1        25%           0            64"
                       "  inconsistent: used count 1, bitmap 2\n"))
      << detail.out;
  Outcome dump = heron({"-r", "1", "t"});
  EXPECT_EQ(dump.status, 0) << dump.err;
  EXPECT_EQ(dump.out.rfind("Region 1: entry size 16, units 4, used 1, generation 8  inconsistent: used count 1, "
                           "bitmap 2\n",
                           0),
            0U)
      << dump.out;
}

}  // namespace

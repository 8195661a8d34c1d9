// printStats and scanRegions output, checked against hand-written text.
#include <fcntl.h>
#include <unistd.h>

#include "Quarry/QuarryReader.h"
#include "QuarryFixture.h"
#include "SmallTable.h"

using Quarry::Offset;
using Scanner = Quarry::QuarryScannerBase<Quarry::NoMapScanner>;

class QuarryOutputTest : public QuarryTest::TableDir {
 protected:
  void SetUp() override {
    QuarryTest::TableDir::SetUp();
    if (writer_->pageSize() != 4096) {
      GTEST_SKIP() << "the expected figures assume 4096-byte pages";
    }
  }
  void TearDown() override {
    ::unlink(outputPath().c_str());
    QuarryTest::TableDir::TearDown();
  }
  std::string stats(bool detail, bool sortByOccupancy) {
    Scanner scanner(handler_, root_, outputPath());
    EXPECT_TRUE(scanner.initialize());
    scanner.printStats(detail, sortByOccupancy);
    return QuarryTest::readFile(outputPath());
  }
  std::string scan(const std::unordered_set<unsigned>& ids, bool printEmpty) {
    Scanner scanner(handler_, root_, outputPath());
    EXPECT_TRUE(scanner.initialize());
    scanner.scanRegions(ids, printEmpty);
    return QuarryTest::readFile(outputPath());
  }
  // Regions 1 (64 x 256, 10 used after 11 allocations and one release),
  // 2 (4096 x 10, 3 used) and 3 (256 x 4, full).
  void buildMixedTable() {
    fill(region(64, 256), 11);
    ASSERT_TRUE(writer_->release(Offset::encode(1, 10)));
    fill(region(4096, 10), 3);
    fill(region(256, 4), 4);
  }
  // Regions 1 (16 x 4: alpha, gamma; beta released) and 2 (8 x 2: 01234567).
  void buildSmallTable() {
    const std::uint32_t one = region(16, 4);
    const std::uint32_t two = region(8, 2);
    ASSERT_TRUE(QuarryTest::fillSmallTable(*writer_, one, two));
  }
};

const char* const kMixedTotals =
    "Region allocator statistics\n"
    "  regions       3\n"
    "  bytes         58368\n"
    "  used          13952\n"
    "  free          44416\n"
    "  pages free    10\n"
    "  occupancy     23%\n"
    "  allocations   18\n"
    "  releases      1\n";

const char* const kRowHeader = "  region  entry size     units      used  occupancy  free pages         bytes\n";

TEST_F(QuarryOutputTest, StatsShowTheTotals) { EXPECT_EQ((buildMixedTable(), stats(false, false)), kMixedTotals); }

TEST_F(QuarryOutputTest, DetailAddsOneRowPerRegionByEntrySizeThenId) {
  buildMixedTable();
  EXPECT_EQ(stats(true, false), std::string(kMixedTotals) + kRowHeader +
                                    "       1          64       256        10         3%           3         16384\n"
                                    "       3         256         4         4       100%           0          1024\n"
                                    "       2        4096        10         3        30%           7         40960\n");
}

TEST_F(QuarryOutputTest, SortByOccupancyOrdersRowsByEntrySizeThenOccupancy) {
  fill(region(64, 100), 50);
  fill(region(64, 100), 10);
  fill(region(64, 100), 30);
  fill(region(16, 10), 5);
  const std::string totals =
      "Region allocator statistics\n"
      "  regions       4\n"
      "  bytes         19360\n"
      "  used          5840\n"
      "  free          13520\n"
      "  pages free    3\n"
      "  occupancy     30%\n"
      "  allocations   95\n"
      "  releases      0\n";
  EXPECT_EQ(stats(false, true), totals + kRowHeader +
                                    "       4          16        10         5        50%           0           160\n"
                                    "       2          64       100        10        10%           1          6400\n"
                                    "       3          64       100        30        30%           1          6400\n"
                                    "       1          64       100        50        50%           1          6400\n");
  ::unlink(outputPath().c_str());
  EXPECT_EQ(stats(true, false), totals + kRowHeader +
                                    "       4          16        10         5        50%           0           160\n"
                                    "       1          64       100        50        50%           1          6400\n"
                                    "       2          64       100        10        10%           1          6400\n"
                                    "       3          64       100        30        30%           1          6400\n");
}

TEST_F(QuarryOutputTest, StatsOfAnEmptyAllocator) {
  EXPECT_EQ(stats(true, false),
            "Region allocator statistics\n"
            "  regions       0\n"
            "  bytes         0\n"
            "  used          0\n"
            "  free          0\n"
            "  pages free    0\n"
            "  occupancy     0%\n"
            "  allocations   0\n"
            "  releases      0\n" +
                std::string(kRowHeader));
}

TEST_F(QuarryOutputTest, StatsAppendToTheOutputFile) {
  buildMixedTable();
  {
    std::ofstream first(outputPath());
    first << "owner and relay headers\n";
  }
  EXPECT_EQ(stats(false, false), std::string("owner and relay headers\n") + kMixedTotals);
}

TEST_F(QuarryOutputTest, StatsReportAShortRegionAndLeaveItOut) {
  buildMixedTable();
  ASSERT_EQ(::truncate(root_.fullPath("region.2").c_str(), 8192), 0);
  EXPECT_EQ(stats(true, false),
            "Region allocator statistics\n"
            "  regions       2\n"
            "  bytes         17408\n"
            "  used          1664\n"
            "  free          15744\n"
            "  pages free    3\n"
            "  occupancy     9%\n"
            "  allocations   18\n"
            "  releases      1\n" +
                std::string(kRowHeader) +
                "       1          64       256        10         3%           3         16384\n"
                "       3         256         4         4       100%           0          1024\n"
                "  region 2: file is 8192 bytes, header claims 45056; skipped\n");
}

using QuarryTest::kRegionOne;
using QuarryTest::kRegionTwo;

TEST_F(QuarryOutputTest, ScanShowsEveryRegionAndItsUsedEntries) {
  buildSmallTable();
  EXPECT_EQ(scan({}, false), std::string(kRegionOne) + kRegionTwo);
}

// A free unit shows what its last entry left in memory: the released
// "beta" is still there.
TEST_F(QuarryOutputTest, ScanWithEmptyEntriesShowsEveryUnitWithItsBytes) {
  buildSmallTable();
  EXPECT_EQ(scan({}, true),
            "Region 1: entry size 16, units 4, used 2, generation 8\n"
            "  offset        unit    size  preview\n"
            "  0x00100000       0      16  61 6c 70 68 61 00 00 00 00 00 00 00 00 00 00 00  |alpha...........|\n"
            "  0x00100001       1      16  62 65 74 61 00 00 00 00 00 00 00 00 00 00 00 00  |beta............|  free\n"
            "  0x00100002       2      16  67 61 6d 6d 61 00 00 00 00 00 00 00 00 00 00 00  |gamma...........|\n"
            "  0x00100003       3      16  00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00  |................|  free\n"
            "Region 2: entry size 8, units 2, used 1, generation 2\n"
            "  offset        unit    size  preview\n"
            "  0x00200000       0       8  30 31 32 33 34 35 36 37                          |01234567|\n"
            "  0x00200001       1       8  00 00 00 00 00 00 00 00                          |........|  free\n");
}

TEST_F(QuarryOutputTest, ScanOfChosenRegionsOnly) {
  buildSmallTable();
  EXPECT_EQ(scan({2}, false), kRegionTwo);
}

TEST_F(QuarryOutputTest, ScanNamesARequestedRegionThatDoesNotExist) {
  buildSmallTable();
  EXPECT_EQ(scan({9, 1}, false), std::string(kRegionOne) + "Region 9: not found\n");
}

TEST_F(QuarryOutputTest, ScanOfAnAllocatorWithoutRegions) {
  EXPECT_EQ(scan({}, false), "Region allocator: no regions\n");
}

TEST_F(QuarryOutputTest, ScanReportsAShortRegionAndGoesOn) {
  buildSmallTable();
  ASSERT_EQ(::truncate(root_.fullPath("region.1").c_str(), 100), 0);
  EXPECT_EQ(scan({}, false), std::string("Region 1: file is 100 bytes, header claims 8192; skipped\n") + kRegionTwo);
}

TEST_F(QuarryOutputTest, RegionThatStaysInconsistentIsMarked) {
  buildSmallTable();
  // A writer stopped in the middle of a change leaves the generation odd.
  const std::uint64_t odd = 9;
  int fd = ::open(root_.fullPath("region.1").c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::pwrite(fd, &odd, sizeof odd, 32), static_cast<ssize_t>(sizeof odd));
  ::close(fd);
  EXPECT_EQ(scan({}, false),
            std::string("Region 1: entry size 16, units 4: inconsistent after 16 attempts; entries not shown\n") +
                kRegionTwo);
  ::unlink(outputPath().c_str());
  EXPECT_EQ(stats(true, false),
            std::string(QuarryTest::kTotals) + kRowHeader +
                "       2           8         2         1        50%           0            16\n"
                "       1          16         4         2        50%           0            64  inconsistent\n");
}

TEST_F(QuarryOutputTest, ScanAppendsToTheOutputFile) {
  buildSmallTable();
  {
    std::ofstream first(outputPath());
    first << "before\n";
  }
  EXPECT_EQ(scan({2}, false), std::string("before\n") + kRegionTwo);
}

TEST_F(QuarryOutputTest, UnopenableOutputFileIsReportedAndNothingGoesToStandardOutput) {
  buildSmallTable();
  const std::string missing = dir_ + "/no/such/dir/out.txt";
  Scanner scanner(handler_, root_, missing);
  ASSERT_TRUE(scanner.initialize());
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  scanner.printStats(true, false);
  scanner.scanRegions({}, false);
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(err, "Error opening " + missing + "\nError opening " + missing + "\n");
}

namespace {

class RegionSelection : public QuarryTest::TableDir {};

// -r maps the regions asked for and no other.
TEST_F(RegionSelection, ScanOfChosenRegionsMapsOnlyThose) {
  region(16, 4);
  region(16, 4);
  region(64, 8);
  Quarry::QuarryScannerBase<Quarry::NoMapScanner> scanner(handler_, root_, outputPath());
  ASSERT_TRUE(scanner.initialize());
  scanner.scanRegions({2, 9}, false);
  EXPECT_EQ(scanner.attachedRegions(), 1U);
  EXPECT_TRUE(scanner.isAttached(2));
  EXPECT_EQ(QuarryTest::readFile(outputPath()),
            "Region 2: entry size 16, units 4, used 0, generation 0\n"
            "  offset        unit    size  preview\n"
            "Region 9: not found\n");
  ::unlink(outputPath().c_str());
}

}  // namespace

#include <gtest/gtest.h>

#include "Quarry/AllocatorStats.h"
#include "Quarry/QuarryReader.h"
#include "QuarryFixture.h"
#include "model/Model.h"
#include "readers/QuarryHelperScanner.h"

using Quarry::AllocatorStats;
using Quarry::RegionStats;

namespace {

RegionStats regionOf(std::uint32_t unitSize, std::uint32_t units, std::uint32_t usedCount, std::uint32_t inBitmap) {
  RegionStats region;
  region.unitSize = unitSize;
  region.units = units;
  region.usedCount = usedCount;
  region.inBitmap = inBitmap;
  return region;
}

}  // namespace

TEST(AllocatorStatsTest, AUsedCountAboveTheUnitCountIsClampedAndDisagrees) {
  const RegionStats region = regionOf(64, 10, 12, 10);
  EXPECT_EQ(region.used(), 10U);
  EXPECT_EQ(region.usedBytes(), 640U);
  EXPECT_EQ(region.usedPercent(), 100U);
  EXPECT_FALSE(region.countsAgree());
}

TEST(AllocatorStatsTest, ConfirmedUsedIsTheLowestOfCountBitmapAndUnits) {
  EXPECT_EQ(regionOf(64, 10, 7, 3).confirmedUsed(), 3U);
  EXPECT_EQ(regionOf(64, 10, 3, 7).confirmedUsed(), 3U);
  EXPECT_EQ(regionOf(64, 10, 12, 11).confirmedUsed(), 10U);
  EXPECT_TRUE(regionOf(64, 10, 7, 7).countsAgree());
}

TEST(AllocatorStatsTest, TotalsAreSixtyFourBitSums) {
  AllocatorStats stats;
  // 2^20 units of 8 KiB: 8 GiB, beyond any 32-bit product.
  stats.add(regionOf(8192, 1U << 20, 1U << 19, 1U << 19));
  stats.add(regionOf(64, 4, 4, 2));
  EXPECT_EQ(stats.bytes, (std::uint64_t{1} << 33) + 256);
  EXPECT_EQ(stats.usedBytes, (std::uint64_t{1} << 32) + 256);
  EXPECT_EQ(stats.confirmedUsedBytes, (std::uint64_t{1} << 32) + 128);
  EXPECT_EQ(stats.freeBytes(), (std::uint64_t{1} << 32));
  EXPECT_EQ(stats.occupancyPercent(), 50U);
  EXPECT_EQ(stats.regions.size(), 2U);
}

TEST(AllocatorStatsTest, AnEmptyAllocatorIsZeroPercent) { EXPECT_EQ(AllocatorStats().occupancyPercent(), 0U); }

TEST(AllocatorStatsTest, TheCapacityLineWrapsEachProductInThirtyTwoBits) {
  AllocatorStats stats;
  // 2^20 units of 8 KiB wrap to 0 in 32 bits; the small region does not.
  stats.add(regionOf(8192, 1U << 20, 1U << 19, 1U << 19));
  stats.add(regionOf(64, 4, 1, 1));
  stats.freePages = 9;
  Heron::Model::HeaderInfo info;
  Heron::capacityFromStats(stats, info);
  EXPECT_EQ(info.numRegions, 2U);
  EXPECT_EQ(info.totalSize, 256U);
  EXPECT_EQ(info.pagesFree, 9U);
  EXPECT_EQ(info.occupancyRate, 25U);
  EXPECT_EQ(info.primaryNotifications, Heron::Model::HeaderInfo::kNotAvailable);
}

class ReadStatsTest : public QuarryTest::TableDir {};

TEST_F(ReadStatsTest, ReadsEveryRegionAndTheCountersAndKeepsNoneAttached) {
  fill(region(64, 8), 5);
  fill(region(4096, 2), 1);
  Quarry::QuarryScannerBase<Quarry::NoMapScanner> scanner(handler_, root_, "");
  ASSERT_TRUE(scanner.initialize());
  const AllocatorStats stats = scanner.readStats();
  EXPECT_EQ(scanner.attachedRegions(), 0U);
  ASSERT_EQ(stats.regions.size(), 2U);
  EXPECT_EQ(stats.bytes, 64U * 8 + 4096U * 2);
  EXPECT_EQ(stats.usedBytes, 64U * 5 + 4096U);
  EXPECT_EQ(stats.confirmedUsedBytes, stats.usedBytes);
  EXPECT_EQ(stats.allocations, 6U);
  EXPECT_EQ(stats.releases, 0U);
  EXPECT_TRUE(stats.countersSettled);
  for (const RegionStats& region : stats.regions) {
    EXPECT_TRUE(region.copySettled);
    EXPECT_TRUE(region.countsAgree());
    EXPECT_NE(region.id, 0U);
  }
}

TEST_F(ReadStatsTest, AMissingAllocatorFileSaysWhy) {
  Quarry::QuarryScannerBase<Quarry::NoMapScanner> scanner(handler_, Mem::RootPath(outDir_.path()), "");
  EXPECT_FALSE(scanner.initialize());
  EXPECT_NE(scanner.initializeError().find("quarry"), std::string::npos) << scanner.initializeError();
}

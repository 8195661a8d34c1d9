#include <cstdint>
#include <vector>

#include "QuarryFixture.h"
#include "model/Model.h"
#include "readers/QuarryHelperScanner.h"

using Heron::Model::HeaderInfo;

class FillHeaderTest : public QuarryTest::TableDir {
 protected:
  HeaderInfo fillFresh() {
    Heron::QuarryHelperScanner scanner(handler_, root_, "");
    EXPECT_TRUE(scanner.initialize());
    HeaderInfo info;
    scanner.fillHeader(info);
    EXPECT_EQ(scanner.attachedRegions(), 0U);
    return info;
  }
  // The fresh header's region count, total size and occupancy rate.
  std::vector<std::uint64_t> figures() {
    const HeaderInfo info = fillFresh();
    return {info.numRegions, info.totalSize, info.occupancyRate};
  }
};

TEST_F(FillHeaderTest, NoRegionsGiveAllZeroFigures) {
  EXPECT_EQ(figures(), (std::vector<std::uint64_t>{0, 0, 0}));
  EXPECT_EQ(fillFresh().pagesFree, 0U);
}

TEST_F(FillHeaderTest, LeavesTheNotificationFiguresAlone) {
  HeaderInfo info = fillFresh();
  EXPECT_EQ(info.primaryNotifications, 4294967295U);
  EXPECT_EQ(info.secondaryNotifications, 4294967295U);
}

TEST_F(FillHeaderTest, AllRegionsFullAreOneHundredPercent) {
  fill(region(64, 8), 8);
  fill(region(4096, 3), 3);
  EXPECT_EQ(figures(), (std::vector<std::uint64_t>{2, 64U * 8 + 4096U * 3, 100}));
  EXPECT_EQ(fillFresh().pagesFree, 0U);
}

TEST_F(FillHeaderTest, ZeroSizedUnitsGiveZeroTotalAndNoDivision) {
  fill(region(0, 10), 4);
  fill(region(0, 3), 3);
  EXPECT_EQ(figures(), (std::vector<std::uint64_t>{2, 0, 0}));
}

TEST_F(FillHeaderTest, TwoPageRegionsOneThreeTenthsUsedAreFifteenPercent) {
  fill(region(4096, 10), 3);
  region(4096, 10);
  HeaderInfo info = fillFresh();
  EXPECT_EQ(info.numRegions, 2U);
  EXPECT_EQ(info.totalSize, 81920U);
  EXPECT_EQ(info.occupancyRate, 15U);
  if (writer_->pageSize() == 4096) {
    EXPECT_EQ(info.pagesFree, 17U);
  }
}

TEST_F(FillHeaderTest, RateIsTruncatedNotRounded) {
  fill(region(16, 1000), 339);  // 33.9 %
  HeaderInfo info = fillFresh();
  EXPECT_EQ(info.totalSize, 16000U);
  EXPECT_EQ(info.occupancyRate, 33U);
}

TEST_F(FillHeaderTest, PagesFreeSumsEveryRegion) {
  const std::uint32_t page = writer_->pageSize();
  fill(region(page, 5), 2);
  fill(region(page, 4), 0);
  HeaderInfo info = fillFresh();
  EXPECT_EQ(info.pagesFree, 7U);
}

TEST_F(FillHeaderTest, ScannerHoldsNoRegionsAfterwardsAndCanAttachAgain) {
  region(64, 4);
  region(64, 4);
  Heron::QuarryHelperScanner scanner(handler_, root_, "");
  ASSERT_TRUE(scanner.initialize());
  HeaderInfo info;
  scanner.fillHeader(info);
  EXPECT_EQ(scanner.attachedRegions(), 0U);
  scanner.attachRegions();
  EXPECT_EQ(scanner.attachedRegions(), 2U);
  HeaderInfo again;
  scanner.fillHeader(again);
  EXPECT_EQ(again.numRegions, 2U);
  EXPECT_EQ(scanner.attachedRegions(), 0U);
}

TEST_F(FillHeaderTest, ProductsWrapInThirtyTwoBitsBeforeWidening) {
  if (sizeof(void*) < 8) {
    GTEST_SKIP() << "a 4 GiB region cannot be mapped in a 32-bit process";
  }
  // 65536 units of 65536 bytes: U*S is 2^32, which wraps to 0 in 32 bits.
  // One used unit: used 65536, free (0 - 65536) in 64-bit two's complement,
  // so the total wraps to 0 and no rate is computed.
  fill(region(65536, 65536), 1);
  EXPECT_EQ(figures(), (std::vector<std::uint64_t>{1, 0, 0}));
}

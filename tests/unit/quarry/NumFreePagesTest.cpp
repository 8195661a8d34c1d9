#include "Quarry/QuarryReader.h"
#include "Quarry/Region.h"
#include "QuarryFixture.h"

using Quarry::Offset;

class NumFreePagesTest : public QuarryTest::TableDir {
 protected:
  std::uint32_t freePages(std::uint32_t id) {
    Quarry::RegionScanner scanner;
    std::string error;
    EXPECT_TRUE(scanner.attach(root_.fullPath("region." + std::to_string(id)), id, error)) << error;
    return scanner.numFreePages();
  }
  std::uint32_t page() const { return writer_->pageSize(); }
};

TEST_F(NumFreePagesTest, EmptyRegionHasEveryPageFree) {
  const std::uint32_t id = region(page(), 8);
  EXPECT_EQ(freePages(id), 8U);
}

TEST_F(NumFreePagesTest, EachUsedPageSizedUnitTakesOnePage) {
  const std::uint32_t id = region(page(), 8);
  fill(id, 3);
  ASSERT_TRUE(writer_->release(Offset::encode(id, 1)));
  EXPECT_EQ(freePages(id), 6U);
}

TEST_F(NumFreePagesTest, SmallUnitsSharingAPageCountItOnce) {
  const std::uint32_t perPage = page() / 64;
  const std::uint32_t id = region(64, perPage * 4);  // four pages
  fill(id, perPage + 1);                             // page 0 whole, first unit of page 1
  for (std::uint32_t unit = 1; unit < perPage; ++unit) {
    ASSERT_TRUE(writer_->release(Offset::encode(id, unit)));
  }
  // Units 0 and perPage remain: pages 0 and 1 touched.
  EXPECT_EQ(freePages(id), 2U);
}

TEST_F(NumFreePagesTest, UnitStraddlingAPageBoundaryTouchesBoth) {
  const std::uint32_t unit = page() / 4 * 3;  // 3/4 page: unit 1 spans pages 0 and 1
  const std::uint32_t id = region(unit, 4);   // three pages of units
  fill(id, 2);
  ASSERT_TRUE(writer_->release(Offset::encode(id, 0)));
  EXPECT_EQ(freePages(id), 1U);
}

TEST_F(NumFreePagesTest, ZeroSizedUnitsHaveNoPages) {
  const std::uint32_t id = region(0, 16);
  fill(id, 4);
  EXPECT_EQ(freePages(id), 0U);
}

TEST_F(NumFreePagesTest, PartialLastPageCounts) {
  const std::uint32_t id = region(page() / 2, 3);  // 1.5 pages -> 2 pages
  EXPECT_EQ(freePages(id), 2U);
  fill(id, 1);
  EXPECT_EQ(freePages(id), 1U);
}

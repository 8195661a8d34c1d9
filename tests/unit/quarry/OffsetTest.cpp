#include <gtest/gtest.h>

#include "Quarry/Offset.h"

using Quarry::Offset;

TEST(QuarryOffset, RegionIdInTopTwelveBitsUnitInLowTwenty) {
  EXPECT_EQ(Offset::encode(3, 5), 0x00300005U);
  EXPECT_EQ(Offset::encode(1, 0), 0x00100000U);
  EXPECT_EQ(Offset::encode(4095, 0), 0xFFF00000U);
}

TEST(QuarryOffset, DecodesWhatItEncodes) {
  const std::uint32_t offset = Offset::encode(2049, 123456);
  EXPECT_EQ(Offset::regionId(offset), 2049U);
  EXPECT_EQ(Offset::unitIndex(offset), 123456U);
}

TEST(QuarryOffset, TombstoneIsAllOnes) {
  EXPECT_EQ(Offset::TOMBSTONED, 0xFFFFFFFFU);
  EXPECT_EQ(Offset::regionId(Offset::TOMBSTONED), 4095U);
  EXPECT_EQ(Offset::unitIndex(Offset::TOMBSTONED), Offset::kMaxUnitIndex);
}

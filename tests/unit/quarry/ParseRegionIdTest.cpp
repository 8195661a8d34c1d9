#include <gtest/gtest.h>

#include "Beacon/Platform.h"
#include "Quarry/QuarryReader.h"

namespace {

std::uint32_t parse(const std::string& name) {
  static Beacon::Platform::DebugHandler handler("QuarryTest", 0);
  return Quarry::Region::parseRegionId(handler, name);
}

}  // namespace

TEST(ParseRegionId, AcceptsDecimalIdsFromOneTo4095) {
  EXPECT_EQ(parse("region.1"), 1U);
  EXPECT_EQ(parse("region.42"), 42U);
  EXPECT_EQ(parse("region.4095"), 4095U);
}

TEST(ParseRegionId, RejectsIdsOutOfRange) {
  EXPECT_EQ(parse("region.0"), 0U);
  EXPECT_EQ(parse("region.4096"), 0U);
  EXPECT_EQ(parse("region.99999"), 0U);
}

TEST(ParseRegionId, RejectsLeadingZerosSignsAndTrailingText) {
  EXPECT_EQ(parse("region.01"), 0U);
  EXPECT_EQ(parse("region.+1"), 0U);
  EXPECT_EQ(parse("region.-1"), 0U);
  EXPECT_EQ(parse("region.1a"), 0U);
  EXPECT_EQ(parse("region.5.new"), 0U);
  EXPECT_EQ(parse("region. 1"), 0U);
}

TEST(ParseRegionId, RejectsOtherTableFiles) {
  EXPECT_EQ(parse(""), 0U);
  EXPECT_EQ(parse("region."), 0U);
  EXPECT_EQ(parse("quarry"), 0U);
  EXPECT_EQ(parse("relay.1"), 0U);
  EXPECT_EQ(parse("xregion.1"), 0U);
  EXPECT_EQ(parse("Region.1"), 0U);
}

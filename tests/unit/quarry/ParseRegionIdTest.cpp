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

// Names that are no region file of a table: ids out of range, leading
// zeros, signs, trailing text, and the other files.
TEST(ParseRegionId, RejectsEverythingElse) {
  const char* const rejected[] = {"region.0",  "region.4096", "region.99999", "region.01", "region.+1",
                                  "region.-1", "region.1a",   "region.5.new", "region. 1", "",
                                  "region.",   "quarry",      "relay.1",      "xregion.1", "Region.1"};
  for (const char* name : rejected) {
    EXPECT_EQ(parse(name), 0U) << name;
  }
}

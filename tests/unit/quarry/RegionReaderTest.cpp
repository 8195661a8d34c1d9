#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "Quarry/QuarryFormat.h"
#include "Quarry/Region.h"
#include "QuarryFixture.h"

class RegionReaderTest : public QuarryTest::TableDir {
 protected:
  std::string path(std::uint32_t id) const { return root_.fullPath("region." + std::to_string(id)); }

  void poke(std::uint32_t id, std::size_t offset, std::uint32_t value) {
    const int fd = ::open(path(id).c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, &value, sizeof value, static_cast<off_t>(offset)), static_cast<ssize_t>(sizeof value));
    ::close(fd);
  }
};

// The geometry is fixed at attach: a header rewritten afterwards (a page size
// of 0, counts and offsets far beyond the file) changes neither what is read
// nor where, and cannot divide by zero.
TEST_F(RegionReaderTest, HeaderRewrittenAfterAttachDoesNotMoveReads) {
  const std::uint32_t id = region(64, 16);
  fill(id, 3);
  Quarry::RegionScanner scanner;
  std::string error;
  ASSERT_TRUE(scanner.attach(path(id), id, error)) << error;
  const std::uint32_t freeBefore = scanner.numFreePages();

  poke(id, offsetof(Quarry::RegionHeader, unitCount), 0xFFFFFFFFU);
  poke(id, offsetof(Quarry::RegionHeader, unitSize), 0xFFFFFFFFU);
  poke(id, offsetof(Quarry::RegionHeader, pageSize), 0);
  poke(id, offsetof(Quarry::RegionHeader, dataOffset), 0xFFFFF000U);
  poke(id, offsetof(Quarry::RegionHeader, regionId), 4000);

  EXPECT_EQ(scanner.header().unitCount, 16U);
  EXPECT_EQ(scanner.header().unitSize, 64U);
  EXPECT_EQ(scanner.id(), id);
  Quarry::RegionSnapshot copy;
  scanner.snapshot(copy, 16, 4);
  EXPECT_TRUE(copy.consistent);
  EXPECT_EQ(copy.used, (std::vector<std::uint32_t>{0, 1, 2}));
  EXPECT_EQ(scanner.numFreePages(), freeBefore);
}

// The used count is the writer's live figure, not the one seen at attach.
TEST_F(RegionReaderTest, UsedUnitsIsReadLive) {
  const std::uint32_t id = region(64, 16);
  Quarry::RegionScanner scanner;
  std::string error;
  ASSERT_TRUE(scanner.attach(path(id), id, error)) << error;
  EXPECT_EQ(scanner.usedUnits(), 0U);
  fill(id, 5);
  EXPECT_EQ(scanner.usedUnits(), 5U);
  EXPECT_EQ(scanner.header().usedUnits, 0U);
}

TEST_F(RegionReaderTest, ZeroPageSizeIsRefusedAtAttach) {
  const std::uint32_t id = region(64, 16);
  poke(id, offsetof(Quarry::RegionHeader, pageSize), 0);
  Quarry::RegionScanner scanner;
  std::string error;
  EXPECT_FALSE(scanner.attach(path(id), id, error));
  EXPECT_EQ(error, "inconsistent layout");
}

// A header of no units is a valid layout: its snapshot is empty and copies
// no bitmap (under UBSan a copy into an empty vector's null data is an error).
TEST_F(RegionReaderTest, RegionOfNoUnitsSnapshotsEmpty) {
  const std::uint32_t id = region(64, 16);
  poke(id, offsetof(Quarry::RegionHeader, unitCount), 0);
  Quarry::RegionScanner scanner;
  std::string error;
  ASSERT_TRUE(scanner.attach(path(id), id, error)) << error;
  Quarry::RegionSnapshot copy;
  scanner.snapshot(copy, 16, 4, true);
  EXPECT_TRUE(copy.consistent);
  EXPECT_TRUE(copy.bitmap.empty());
  EXPECT_TRUE(copy.used.empty());
  EXPECT_TRUE(copy.previews.empty());
}

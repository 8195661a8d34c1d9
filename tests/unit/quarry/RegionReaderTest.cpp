#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "Quarry/AllocatorStats.h"
#include "Quarry/Offset.h"
#include "Quarry/QuarryFormat.h"
#include "Quarry/Region.h"
#include "QuarryFixture.h"
#include "support/Mappings.h"

class RegionReaderTest : public QuarryTest::TableDir {
 protected:
  std::string path(std::uint32_t id) const { return root_.fullPath("region." + std::to_string(id)); }
  // What attaching region `id` with `extent` says: "" when it attaches.
  std::string attachError(std::uint32_t id, Mem::MapExtent extent) {
    Quarry::RegionScanner scanner;
    std::string error;
    return scanner.attach(path(id), id, error, extent) ? std::string() : error;
  }

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

// Told to map the header only, the reader maps [0, dataOffset): header and
// bitmap, here three pages of bitmap (65,536 units), none of the 512 KiB of
// units after them.
TEST_F(RegionReaderTest, HeaderExtentMapsTheHeaderAndBitmapOnly) {
  const std::uint32_t id = region(8, 65536);
  writer_.reset();  // its mappings would be listed too
  Quarry::RegionScanner scanner;
  std::string error;
  ASSERT_TRUE(scanner.attach(path(id), id, error, Mem::MapExtent::Header)) << error;
  const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  ASSERT_EQ(scanner.header().dataOffset, 3 * page);
  EXPECT_EQ(scanner.mappedSize(), 3 * page);
  EXPECT_EQ(HeronTest::mappingLengths(path(id)), std::vector<std::size_t>{3 * page});
  EXPECT_FALSE(scanner.unitsMapped());
}

TEST_F(RegionReaderTest, WholeExtentMapsTheWholeFile) {
  const std::uint32_t id = region(8, 65536);
  writer_.reset();
  Quarry::RegionScanner scanner;
  std::string error;
  ASSERT_TRUE(scanner.attach(path(id), id, error)) << error;
  const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  EXPECT_EQ(HeronTest::mappingLengths(path(id)), std::vector<std::size_t>{3 * page + 8 * 65536});
  EXPECT_TRUE(scanner.unitsMapped());
}

// Units used here and there, a bitmap past the first page: a header-only
// mapping counts them as the whole mapping does.
TEST_F(RegionReaderTest, HeaderExtentGivesTheStatisticsOfTheWholeFile) {
  const std::uint32_t id = region(8, 65536);
  fill(id, 40000);
  for (std::uint32_t unit = 0; unit < 40000; unit += 3) {
    ASSERT_TRUE(writer_->release(Quarry::Offset::encode(id, unit)));
  }
  Quarry::RegionScanner whole;
  Quarry::RegionScanner header;
  std::string error;
  ASSERT_TRUE(whole.attach(path(id), id, error)) << error;
  ASSERT_TRUE(header.attach(path(id), id, error, Mem::MapExtent::Header)) << error;
  Quarry::RegionSnapshot copy;
  const Quarry::RegionStats expected = Quarry::readRegionStats(whole, copy, 4);
  const Quarry::RegionStats got = Quarry::readRegionStats(header, copy, 4);
  EXPECT_EQ(expected.inBitmap, 40000U - 13334U);
  EXPECT_EQ(got.id, expected.id);
  EXPECT_EQ(got.unitSize, expected.unitSize);
  EXPECT_EQ(got.units, expected.units);
  EXPECT_EQ(got.usedCount, expected.usedCount);
  EXPECT_EQ(got.inBitmap, expected.inBitmap);
  EXPECT_EQ(got.freePages, expected.freePages);
  EXPECT_TRUE(got.copySettled);
}

using RegionReaderDeathTest = RegionReaderTest;

// The units are not mapped: a preview, which reads them, is refused.
TEST_F(RegionReaderDeathTest, PreviewsOfAHeaderExtentAreFatal) {
  const std::uint32_t id = region(64, 16);
  fill(id, 2);
  Quarry::RegionScanner scanner;
  std::string error;
  ASSERT_TRUE(scanner.attach(path(id), id, error, Mem::MapExtent::Header)) << error;
  Quarry::RegionSnapshot copy;
  EXPECT_DEATH(scanner.snapshot(copy, 16, 4), "previews asked of a mapping of its header and bitmap only");
}

// The header-only attach checks the layout as the whole one does.
TEST_F(RegionReaderTest, HeaderExtentRefusesWhatTheWholeExtentRefuses) {
  const std::uint32_t shortFile = region(4096, 8);
  ASSERT_EQ(::truncate(path(shortFile).c_str(), 4096), 0);
  const std::uint32_t otherId = region(64, 16);
  poke(otherId, offsetof(Quarry::RegionHeader, regionId), 4000);
  const std::uint32_t noPage = region(64, 16);
  poke(noPage, offsetof(Quarry::RegionHeader, pageSize), 0);
  const std::uint32_t farData = region(64, 16);
  poke(farData, offsetof(Quarry::RegionHeader, dataOffset), 0xFFFFF000U);
  writer_.reset();
  for (const std::uint32_t id : {shortFile, otherId, noPage, farData}) {
    const std::string whole = attachError(id, Mem::MapExtent::Whole);
    EXPECT_FALSE(whole.empty()) << id;
    EXPECT_EQ(attachError(id, Mem::MapExtent::Header), whole) << id;
  }
  EXPECT_EQ(HeronTest::mappingLengths(path(farData)), std::vector<std::size_t>{});
}

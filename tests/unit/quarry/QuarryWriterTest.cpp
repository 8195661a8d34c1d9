#include <sys/stat.h>

#include <cstring>

#include "QuarryFixture.h"

using Quarry::Offset;
using Quarry::QuarryHeader;
using Quarry::RegionHeader;

namespace {

// The header at the start of a file, zero when the file is shorter.
template <typename Header>
Header readHeader(const std::string& path) {
  Header header{};
  std::string bytes = QuarryTest::readFile(path);
  if (bytes.size() >= sizeof header) {
    std::memcpy(&header, bytes.data(), sizeof header);
  }
  return header;
}
RegionHeader readRegionHeader(const std::string& path) { return readHeader<RegionHeader>(path); }
QuarryHeader readQuarryHeader(const std::string& path) { return readHeader<QuarryHeader>(path); }

}  // namespace

class QuarryWriterTest : public QuarryTest::TableDir {};

TEST_F(QuarryWriterTest, CreateWritesTheAllocatorHeader) {
  const std::string bytes = QuarryTest::readFile(root_.fullPath("quarry"));
  ASSERT_EQ(bytes.size(), 64U);
  EXPECT_EQ(bytes.substr(0, 8), "HRNQUARY");
  QuarryHeader header = readQuarryHeader(root_.fullPath("quarry"));
  EXPECT_EQ(header.version, 1U);
  EXPECT_EQ(header.pageSize, writer_->pageSize());
  EXPECT_EQ(header.maxRegionId, 4095U);
  EXPECT_EQ(header.nextRegionId, 1U);
  EXPECT_EQ(header.liveRegions, 0U);
  EXPECT_EQ(header.generation, 0U);
}

TEST_F(QuarryWriterTest, CreateFailsWhenTheAllocatorExists) {
  Quarry::QuarryWriter second(handler_, root_);
  std::string error;
  EXPECT_FALSE(second.create(error));
  EXPECT_NE(error.find("quarry"), std::string::npos);
}

TEST_F(QuarryWriterTest, RegionFileIsCreatedAtFullSizeWithItsHeader) {
  const std::uint32_t page = writer_->pageSize();
  const std::uint32_t id = region(64, 256);
  ASSERT_EQ(id, 1U);
  struct stat st {};
  ASSERT_EQ(::stat(root_.fullPath("region.1").c_str(), &st), 0);
  // Header and 32 bitmap bytes fit one page; 256 x 64 bytes of units follow.
  EXPECT_EQ(static_cast<std::uint64_t>(st.st_size), page + ((256ULL * 64 + page - 1) / page) * page);
  RegionHeader header = readRegionHeader(root_.fullPath("region.1"));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&header.magic), 8), "HRNREGON");
  EXPECT_EQ(header.version, 1U);
  EXPECT_EQ(header.unitCount, 256U);
  EXPECT_EQ(header.usedUnits, 0U);
  EXPECT_EQ(header.unitSize, 64U);
  EXPECT_EQ(header.regionId, 1U);
  EXPECT_EQ(header.pageSize, page);
  EXPECT_EQ(header.bitmapOffset, 64U);
  EXPECT_EQ(header.dataOffset, page);
  EXPECT_NE(header.createdNs, 0U);
}

TEST_F(QuarryWriterTest, RegionIdsCountUpAndTheAllocatorRecordsThem) {
  EXPECT_EQ(region(64, 4), 1U);
  EXPECT_EQ(region(128, 4), 2U);
  QuarryHeader header = readQuarryHeader(root_.fullPath("quarry"));
  EXPECT_EQ(header.nextRegionId, 3U);
  EXPECT_EQ(header.liveRegions, 2U);
  EXPECT_EQ(header.generation % 2, 0U);
}

TEST_F(QuarryWriterTest, AllocateSetsBitmapUsedCountAndCounters) {
  const std::uint32_t id = region(16, 10);
  const char payload[] = "hello";
  const std::uint32_t first = writer_->allocate(id, payload, 5);
  const std::uint32_t second = writer_->allocate(id);
  EXPECT_EQ(first, Offset::encode(id, 0));
  EXPECT_EQ(second, Offset::encode(id, 1));
  EXPECT_EQ(std::memcmp(writer_->payload(first), "hello\0\0\0", 8), 0);
  const std::string bytes = QuarryTest::readFile(root_.fullPath("region.1"));
  RegionHeader header = readRegionHeader(root_.fullPath("region.1"));
  EXPECT_EQ(header.usedUnits, 2U);
  EXPECT_EQ(header.generation, 4U);
  EXPECT_EQ(static_cast<unsigned char>(bytes[64]), 0x03U);
  EXPECT_EQ(bytes.substr(header.dataOffset, 5), "hello");
  QuarryHeader counters = readQuarryHeader(root_.fullPath("quarry"));
  EXPECT_EQ(counters.allocations, 2U);
  EXPECT_EQ(counters.bytesInUse, 32U);
}

TEST_F(QuarryWriterTest, ReleaseClearsTheUnitAndItIsReusedFirst) {
  const std::uint32_t id = region(16, 10);
  fill(id, 3);
  EXPECT_TRUE(writer_->release(Offset::encode(id, 1)));
  EXPECT_FALSE(writer_->release(Offset::encode(id, 1)));
  EXPECT_FALSE(writer_->isAllocated(Offset::encode(id, 1)));
  EXPECT_EQ(writer_->usedUnits(id), 2U);
  EXPECT_EQ(writer_->allocate(id), Offset::encode(id, 1));
  QuarryHeader counters = readQuarryHeader(root_.fullPath("quarry"));
  EXPECT_EQ(counters.allocations, 4U);
  EXPECT_EQ(counters.releases, 1U);
  EXPECT_EQ(counters.bytesInUse, 48U);
}

TEST_F(QuarryWriterTest, FullRegionAllocatesTombstone) {
  const std::uint32_t id = region(8, 2);
  fill(id, 2);
  EXPECT_EQ(writer_->allocate(id), Offset::TOMBSTONED);
  EXPECT_EQ(writer_->allocate(999), Offset::TOMBSTONED);
}

TEST_F(QuarryWriterTest, AllocateFittingPicksTheSmallestUnitThatHolds) {
  const std::uint32_t big = region(4096, 2);
  const std::uint32_t small = region(64, 1);
  const std::string forty(40, 'x');
  const std::string tooBig(5000, 'x');
  EXPECT_EQ(Offset::regionId(writer_->allocateFitting(forty.data(), forty.size())), small);
  EXPECT_EQ(Offset::regionId(writer_->allocateFitting(forty.data(), forty.size())), big);
  EXPECT_EQ(writer_->allocateFitting(tooBig.data(), tooBig.size()), Offset::TOMBSTONED);
}

TEST_F(QuarryWriterTest, DeleteRegionRemovesTheFileAndCountsItsUnitsReleased) {
  const std::uint32_t id = region(32, 4);
  fill(id, 3);
  EXPECT_TRUE(writer_->deleteRegion(id));
  struct stat st {};
  EXPECT_NE(::stat(root_.fullPath("region.1").c_str(), &st), 0);
  QuarryHeader counters = readQuarryHeader(root_.fullPath("quarry"));
  EXPECT_EQ(counters.releases, 3U);
  EXPECT_EQ(counters.bytesInUse, 0U);
  EXPECT_EQ(counters.liveRegions, 0U);
  EXPECT_FALSE(writer_->deleteRegion(id));
}

TEST_F(QuarryWriterTest, OpenAdoptsTheRegionsPresent) {
  const std::uint32_t id = region(32, 4);
  fill(id, 2);
  writer_.reset();
  Quarry::QuarryWriter reopened(handler_, root_);
  std::string error;
  ASSERT_TRUE(reopened.open(error)) << error;
  EXPECT_EQ(reopened.regionIds(), std::vector<std::uint32_t>{id});
  EXPECT_EQ(reopened.usedUnits(id), 2U);
  EXPECT_EQ(reopened.allocate(id), Offset::encode(id, 2));
  EXPECT_EQ(reopened.createRegion(8, 8, error), 2U);
}

TEST_F(QuarryWriterTest, OpenRejectsABadAllocatorFile) {
  writer_.reset();
  {
    std::ofstream out(root_.fullPath("quarry"), std::ios::binary | std::ios::trunc);
    out << std::string(64, 'x');
  }
  Quarry::QuarryWriter reopened(handler_, root_);
  std::string error;
  EXPECT_FALSE(reopened.open(error));
}

TEST_F(QuarryWriterTest, UpdateRewritesAnAllocatedUnitOnly) {
  const std::uint32_t id = region(8, 2);
  const std::uint32_t offset = writer_->allocate(id, "aaaaaaaa", 8);
  EXPECT_TRUE(writer_->update(offset, "bb", 2));
  EXPECT_EQ(std::memcmp(writer_->payload(offset), "bb\0\0\0\0\0\0", 8), 0);
  EXPECT_FALSE(writer_->update(Offset::encode(id, 1), "cc", 2));
  EXPECT_EQ(writer_->payload(Offset::encode(id, 1)), nullptr);
}

TEST_F(QuarryWriterTest, BadRegionArgumentsAreRefused) {
  std::string error;
  EXPECT_EQ(writer_->createRegion(64, 0, error), 0U);
  EXPECT_EQ(writer_->createRegion(64, 1U << 20, error), 0U);
  EXPECT_FALSE(error.empty());
}

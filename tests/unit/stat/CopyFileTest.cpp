// Copies of table files: a generation that stays odd (a writer that died
// mid-change) is kept and marked torn after the bound, never looped on; a
// region's units follow its header in the copy, with the sum of it all.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "CopyFile.h"
#include "Quarry/QuarryFormat.h"
#include "support/TempDir.h"

namespace {

class CopyFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    for (const char* made : {"/live", "/live/t", "/staged"}) {
      ASSERT_EQ(::mkdir((dir_ + made).c_str(), 0755), 0) << dir_ + made;
    }
  }

  void write(const std::string& name, const std::string& bytes) {
    std::ofstream(dir_ + "/live/t/" + name, std::ios::binary) << bytes;
  }
  std::vector<Stat::CopiedFile> stage() {
    Stat::Sample sample;
    Stat::Table table;
    table.identity.name = "t";
    table.identity.path = dir_ + "/live/t";
    sample.tables.push_back(table);
    std::vector<Stat::CopiedFile> files;
    std::string error;
    EXPECT_TRUE(Stat::stageTables(sample, dir_ + "/staged", files, error)) << error;
    return files;
  }

  HeronTest::TempDir temp_{"heron-copy-test"};
  const std::string dir_ = temp_.path();
};

std::string quarryWithGeneration(std::uint64_t generation) {
  Quarry::QuarryHeader header{};
  header.magic = Quarry::QuarryHeader::kMagic;
  header.version = 1;
  header.generation = generation;
  return std::string(reinterpret_cast<const char*>(&header), sizeof header);
}

std::string regionWithGeneration(std::uint64_t generation) {
  Quarry::RegionHeader header{};
  header.magic = Quarry::RegionHeader::kMagic;
  header.version = 1;
  header.unitCount = 8;
  header.unitSize = 512;
  header.pageSize = 4096;
  header.generation = generation;
  header.bitmapOffset = 64;
  header.dataOffset = 4096;
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
  bytes.resize(4096, '\0');
  bytes += std::string(4096, 'u');
  return bytes;
}

TEST_F(CopyFileTest, AnOddGenerationIsTornAfterTheBound) {
  write("quarry", quarryWithGeneration(7));
  write("region.1", regionWithGeneration(9));
  const std::vector<Stat::CopiedFile> files = stage();
  ASSERT_EQ(files.size(), 2U);
  for (const Stat::CopiedFile& file : files) {
    EXPECT_TRUE(file.torn) << file.entry;
    EXPECT_EQ(file.attempts, Stat::kHeaderCopyAttempts) << file.entry;
  }
}

TEST_F(CopyFileTest, ARegionIsItsHeaderThenItsUnitsWithTheirSum) {
  write("quarry", quarryWithGeneration(8));
  const std::string region = regionWithGeneration(10);
  write("region.1", region);
  write("relay.1", std::string(100, 'a'));
  write("relay.2", std::string(100, 'b'));
  std::vector<Stat::CopiedFile> files = stage();
  ASSERT_EQ(files.size(), 4U);
  EXPECT_EQ(files[1].entry, "tables/t/region.1");
  EXPECT_FALSE(files[1].torn);
  EXPECT_EQ(files[1].attempts, 1U);
  EXPECT_TRUE(files[1].dataFromLive);
  std::string streamed;
  ASSERT_TRUE(Stat::streamCopy(files[1], [&](const void* bytes, std::size_t size) {
    streamed.append(static_cast<const char*>(bytes), size);
    return true;
  }));
  EXPECT_EQ(streamed, region);
  EXPECT_FALSE(files[1].changedAfterward);
  EXPECT_EQ(files[1].sha256.size(), 64U);
  // Queue files too short for a header are copied as they are, once.
  EXPECT_EQ(files[2].entry, "tables/t/relay.1");
  EXPECT_EQ(files[2].size, 100U);
  EXPECT_FALSE(files[2].torn);
}

TEST_F(CopyFileTest, AFileCutAfterItsHeaderIsPaddedAndTorn) {
  write("region.1", regionWithGeneration(10));
  std::vector<Stat::CopiedFile> files = stage();
  ASSERT_EQ(files.size(), 1U);
  ASSERT_EQ(::truncate((dir_ + "/live/t/region.1").c_str(), 5000), 0);
  std::string streamed;
  ASSERT_TRUE(Stat::streamCopy(files[0], [&](const void* bytes, std::size_t size) {
    streamed.append(static_cast<const char*>(bytes), size);
    return true;
  }));
  EXPECT_EQ(streamed.size(), 8192U);
  EXPECT_TRUE(files[0].torn);
  EXPECT_EQ(streamed.substr(5000), std::string(8192 - 5000, '\0'));
}

}  // namespace

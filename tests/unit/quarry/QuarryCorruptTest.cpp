// Damaged allocator and region files: refused or reported, never a signal.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "Quarry/QuarryReader.h"
#include "QuarryFixture.h"
#include "readers/QuarryHelperScanner.h"

using Scanner = Quarry::QuarryScannerBase<Quarry::NoMapScanner>;

class QuarryCorruptTest : public QuarryTest::TableDir {
 protected:
  void TearDown() override {
    ::unlink(outputPath().c_str());
    QuarryTest::TableDir::TearDown();
  }
  void overwrite(const std::string& name, const std::string& bytes) {
    std::ofstream out(root_.fullPath(name), std::ios::binary | std::ios::trunc);
    out << bytes;
  }
  void patch(const std::string& name, std::size_t at, const void* bytes, std::size_t count) {
    int fd = ::open(root_.fullPath(name).c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, bytes, count, static_cast<off_t>(at)), static_cast<ssize_t>(count));
    ::close(fd);
  }
  // Runs every read path once; the test fails by dying if any of them
  // touches memory past a file's end.
  std::string readEverything() {
    ::unlink(outputPath().c_str());
    Scanner scanner(handler_, root_, outputPath());
    if (!scanner.initialize()) {
      return "not initialised";
    }
    scanner.printStats(true, false);
    scanner.scanRegions({}, true);
    Heron::QuarryHelperScanner helper(handler_, root_, "");
    if (helper.initialize()) {
      Heron::Model::HeaderInfo info;
      helper.fillHeader(info);
    }
    return QuarryTest::readFile(outputPath());
  }
};

TEST_F(QuarryCorruptTest, RandomBytesAsAllocatorFileAreRefused) {
  std::mt19937 random(7);
  std::string bytes(64, '\0');
  for (char& c : bytes) {
    c = static_cast<char>(random());
  }
  overwrite("quarry", bytes);
  EXPECT_EQ(readEverything(), "not initialised");
}

TEST_F(QuarryCorruptTest, EmptyAllocatorFileIsRefused) {
  overwrite("quarry", "");
  EXPECT_EQ(readEverything(), "not initialised");
}

TEST_F(QuarryCorruptTest, WrongAllocatorVersionIsRefused) {
  const std::uint32_t version = 2;
  patch("quarry", 8, &version, sizeof version);
  EXPECT_EQ(readEverything(), "not initialised");
}

TEST_F(QuarryCorruptTest, RandomBytesAsRegionFileAreReported) {
  region(64, 4);
  std::mt19937 random(11);
  std::string bytes(8192, '\0');
  for (char& c : bytes) {
    c = static_cast<char>(random());
  }
  overwrite("region.2", bytes);
  const std::string text = readEverything();
  EXPECT_NE(text.find("  region 2: bad magic or version; skipped\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Region 2: bad magic or version; skipped\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Region 1: entry size 64"), std::string::npos) << text;
}

TEST_F(QuarryCorruptTest, EmptyRegionFileIsReported) {
  overwrite("region.3", "");
  EXPECT_NE(readEverything().find("Region 3: file is 0 bytes, shorter than a region header; skipped\n"),
            std::string::npos);
}

TEST_F(QuarryCorruptTest, RegionHeaderClaimingMoreUnitsThanTheFileHoldsIsReported) {
  region(64, 4);
  const std::uint32_t units = 100000;
  patch("region.1", 12, &units, sizeof units);
  EXPECT_NE(readEverything().find("Region 1: inconsistent layout; skipped\n"), std::string::npos);
}

TEST_F(QuarryCorruptTest, RegionHeaderClaimingHugeUnitsIsReported) {
  region(64, 4);
  const std::uint32_t unitSize = 0xFFFFFFFFU;
  patch("region.1", 20, &unitSize, sizeof unitSize);
  EXPECT_NE(readEverything().find("Region 1: file is"), std::string::npos);
}

// Random damage to the headers of both kinds of file, many times over, with
// a fixed seed so a failure can be replayed.
TEST_F(QuarryCorruptTest, SeededRandomHeaderDamageNeverCrashes) {
  std::mt19937 random(20261122);
  const std::uint32_t a = region(64, 100);
  const std::uint32_t b = region(4096, 3);
  fill(a, 40);
  fill(b, 2);
  writer_.reset();
  const std::string pristineA = QuarryTest::readFile(root_.fullPath("region.1"));
  const std::string pristineB = QuarryTest::readFile(root_.fullPath("region.2"));
  const std::string pristineQ = QuarryTest::readFile(root_.fullPath("quarry"));
  int initialised = 0;
  for (int round = 0; round < 300; ++round) {
    std::string damagedA = pristineA;
    std::string damagedB = pristineB;
    std::string damagedQ = pristineQ;
    for (std::string* file : {&damagedA, &damagedB, &damagedQ}) {
      const int hits = static_cast<int>(random() % 4);
      for (int i = 0; i < hits; ++i) {
        const std::size_t at = random() % 64;
        const int kind = static_cast<int>(random() % 3);
        if (kind == 0) {
          (*file)[at] = static_cast<char>(random());
        } else if (kind == 1) {
          (*file)[at] = static_cast<char>((*file)[at] ^ (1 << (random() % 8)));
        } else {
          const std::uint32_t word = random();
          std::memcpy(&(*file)[at & ~std::size_t{3}], &word, sizeof word);
        }
      }
      if (random() % 5 == 0) {
        file->resize(random() % (file->size() + 1));
      }
    }
    overwrite("region.1", damagedA);
    overwrite("region.2", damagedB);
    overwrite("quarry", damagedQ);
    if (readEverything() != "not initialised") {
      ++initialised;
    }
  }
  // Both outcomes were exercised.
  EXPECT_GT(initialised, 0);
  EXPECT_LT(initialised, 300);
}

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "Beacon/Platform.h"
#include "Mem/SharedMemWrapper.h"
#include "support/Handler.h"
#include "support/Run.h"

namespace {

using HeronTest::quietHandler;

using File = Mem::Tracked<Mem::SharedMemWrapper>;

class SharedMemWrapperTest : public testing::Test {
 protected:
  // A file of `size` bytes, byte i holding i % 251.
  std::string makeFile(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      bytes[i] = static_cast<char>(i % 251);
    }
    const std::string path = temp.file("data");
    HeronTest::writeFile(path, bytes);
    return path;
  }
  static unsigned char at(const void* base, std::size_t offset) {
    return static_cast<const unsigned char*>(base)[offset];
  }

  HeronTest::TempRoot temp;
};

TEST_F(SharedMemWrapperTest, AttachMapsTheRequestedSizeOnly) {
  File file(quietHandler(), makeFile(12376));
  const void* base = file.attach(88, Mem::Mode::ReadOnly, nullptr);
  ASSERT_NE(base, nullptr) << file.lastError();
  EXPECT_EQ(file.mappedSize(), 88U);
  EXPECT_EQ(at(base, 87), 87U);
}

TEST_F(SharedMemWrapperTest, RemapGrowsTheMappingOverTheSameFile) {
  File file(quietHandler(), makeFile(12376));
  ASSERT_NE(file.attach(88, Mem::Mode::ReadOnly, nullptr), nullptr);
  const void* grown = file.remap(12376);
  ASSERT_NE(grown, nullptr) << file.lastError();
  EXPECT_EQ(file.mappedSize(), 12376U);
  EXPECT_EQ(file.base(), grown);
  EXPECT_EQ(at(grown, 12375), 12375U % 251);
  EXPECT_EQ(at(grown, 0), 0U);
}

TEST_F(SharedMemWrapperTest, RemapToTheMappedSizeKeepsTheMapping) {
  File file(quietHandler(), makeFile(4096));
  const void* base = file.attach(4096, Mem::Mode::ReadOnly, nullptr);
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(file.remap(4096), base);
  EXPECT_EQ(file.mappedSize(), 4096U);
}

TEST_F(SharedMemWrapperTest, RemapPastTheEndFailsAndKeepsTheOldMapping) {
  File file(quietHandler(), makeFile(200));
  const void* base = file.attach(88, Mem::Mode::ReadOnly, nullptr);
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(file.remap(201), nullptr);
  EXPECT_EQ(file.lastError(), "file holds 200 bytes, 201 requested");
  EXPECT_EQ(file.base(), base);
  EXPECT_EQ(file.mappedSize(), 88U);
  EXPECT_EQ(at(base, 50), 50U);
}

TEST_F(SharedMemWrapperTest, KnownSizeIsWhatTheOpenSawUntilAskedAgain) {
  const std::string path = makeFile(4096);
  File file(quietHandler(), path);
  EXPECT_EQ(file.knownSize(), 0U);
  ASSERT_NE(file.attach(88, Mem::Mode::ReadOnly, nullptr), nullptr);
  EXPECT_EQ(file.knownSize(), 4096U);
  ASSERT_EQ(::truncate(path.c_str(), 8192), 0);
  EXPECT_EQ(file.knownSize(), 4096U);
  EXPECT_EQ(file.memSize(), 8192U);
  EXPECT_EQ(file.knownSize(), 8192U);
}

TEST_F(SharedMemWrapperTest, RemapWithAGivenSizeMapsWithinItOnly) {
  File file(quietHandler(), makeFile(4096));
  const void* base = file.attach(88, Mem::Mode::ReadOnly, nullptr);
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(file.remap(2048, 1024), nullptr);
  EXPECT_EQ(file.lastError(), "file holds 1024 bytes, 2048 requested");
  EXPECT_EQ(file.mappedSize(), 88U);
  const void* grown = file.remap(4096, file.knownSize());
  ASSERT_NE(grown, nullptr) << file.lastError();
  EXPECT_EQ(file.mappedSize(), 4096U);
  EXPECT_EQ(at(grown, 4095), 4095U % 251);
}

TEST_F(SharedMemWrapperTest, AttachFailsOnAMissingOrShortFile) {
  File missing(quietHandler(), temp.file("none"));
  EXPECT_EQ(missing.attach(88, Mem::Mode::ReadOnly, nullptr), nullptr);
  File empty(quietHandler(), makeFile(0));
  EXPECT_EQ(empty.attach(88, Mem::Mode::ReadOnly, nullptr), nullptr);
  EXPECT_EQ(empty.lastError(), "file holds 0 bytes, 88 requested");
}

}  // namespace

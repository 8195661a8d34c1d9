// A fresh table directory with an allocator writer, for the region tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"
#include "Quarry/QuarryWriter.h"
#include "support/TempDir.h"

namespace QuarryTest {

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

class TableDir : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    ASSERT_FALSE(outDir_.path().empty());
    root_ = Mem::RootPath(dir_);
    writer_ = std::make_unique<Quarry::QuarryWriter>(handler_, root_);
    std::string error;
    ASSERT_TRUE(writer_->create(error)) << error;
  }
  void TearDown() override { writer_.reset(); }

  std::uint32_t region(std::uint32_t unitSize, std::uint32_t unitCount) {
    std::string error;
    std::uint32_t id = writer_->createRegion(unitSize, unitCount, error);
    EXPECT_NE(id, 0U) << error;
    return id;
  }
  void fill(std::uint32_t regionId, std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) {
      ASSERT_NE(writer_->allocate(regionId), Quarry::Offset::TOMBSTONED);
    }
  }
  // Report files go beside the table, never into it.
  std::string outputPath() const { return outDir_.file("out"); }

  Beacon::Platform::DebugHandler handler_{"QuarryTest", 0};
  HeronTest::TempDir table_{"quarry-test"};
  HeronTest::TempDir outDir_{"quarry-test-out"};
  std::string dir_ = table_.path();
  Mem::RootPath root_;
  std::unique_ptr<Quarry::QuarryWriter> writer_;
};

}  // namespace QuarryTest

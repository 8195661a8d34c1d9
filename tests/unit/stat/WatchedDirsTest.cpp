#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>

#include "WatchedDirs.h"
#include "support/Handler.h"
#include "support/TempDir.h"

namespace {

bool holds(const Mem::TableFinder::Directory& dir, const std::string& name) {
  return std::find(dir.entries.begin(), dir.entries.end(), name) != dir.entries.end();
}

void touchFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0) << path;
  ::close(fd);
}

// A root holding the table "a/t" (an owner file and a queue file).
class WatchedDirsTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::mkdir(dir("a").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(dir("a/t").c_str(), 0755), 0);
    touchFile(dir("a/t/owner"));
    touchFile(dir("a/t/relay.1"));
  }
  std::string dir(const std::string& name) const { return root_.file(name); }
  const std::string& root() const { return root_.path(); }
  // The walk's reads of a sample: the root, then down to the table.
  void readAll() {
    watched_.refresh();
    watched_.read(root());
    watched_.read(dir("a"));
    watched_.read(dir("a/t"));
  }

  HeronTest::TempDir root_{"heron-watch", true};
  Stat::WatchedDirs watched_{HeronTest::quietHandler()};
};

TEST_F(WatchedDirsTest, AnUnchangedDirectoryIsNotReadAgain) {
  readAll();
  const std::uint64_t reads = watched_.reads();
  const std::uint64_t version = watched_.version(dir("a/t"));
  EXPECT_NE(version, 0U);
  readAll();
  EXPECT_EQ(watched_.reads(), reads);
  EXPECT_EQ(watched_.version(dir("a/t")), version);
  EXPECT_TRUE(holds(watched_.read(dir("a/t")), "relay.1"));
  EXPECT_TRUE(watched_.owned(dir("a/t")));
}

TEST_F(WatchedDirsTest, AFileAddedIsListedAtTheNextSample) {
  readAll();
  const std::uint64_t version = watched_.version(dir("a/t"));
  touchFile(dir("a/t/region.1"));
  watched_.refresh();
  EXPECT_EQ(watched_.version(dir("a/t")), 0U);
  EXPECT_TRUE(holds(watched_.read(dir("a/t")), "region.1"));
  EXPECT_NE(watched_.version(dir("a/t")), version);
}

TEST_F(WatchedDirsTest, AFileResizedInPlaceChangesTheVersion) {
  readAll();
  const std::uint64_t version = watched_.version(dir("a/t"));
  ASSERT_EQ(::truncate(dir("a/t/relay.1").c_str(), 4096), 0);
  readAll();
  EXPECT_NE(watched_.version(dir("a/t")), version);
}

TEST_F(WatchedDirsTest, AFileRemovedIsNoLongerListed) {
  readAll();
  ASSERT_EQ(::unlink(dir("a/t/relay.1").c_str()), 0);
  readAll();
  EXPECT_FALSE(holds(watched_.read(dir("a/t")), "relay.1"));
}

TEST_F(WatchedDirsTest, AnOwnerFileReplacedByASymlinkNoLongerMakesATable) {
  readAll();
  ASSERT_EQ(::symlink("relay.1", dir("a/t/owner.new").c_str()), 0);
  ASSERT_EQ(::rename(dir("a/t/owner.new").c_str(), dir("a/t/owner").c_str()), 0);
  readAll();
  EXPECT_FALSE(watched_.owned(dir("a/t")));
}

TEST_F(WatchedDirsTest, ARenamedDirectoryIsForgottenUnderItsOldName) {
  readAll();
  ASSERT_EQ(::rename(dir("a").c_str(), dir("b").c_str()), 0);
  watched_.refresh();
  EXPECT_EQ(watched_.version(dir("a/t")), 0U);
  EXPECT_EQ(watched_.version(dir("a")), 0U);
  const Mem::TableFinder::Directory top = watched_.read(root());
  EXPECT_TRUE(holds(top, "b"));
  EXPECT_FALSE(holds(top, "a"));
  EXPECT_TRUE(holds(watched_.read(dir("b/t")), "relay.1"));
}

TEST_F(WatchedDirsTest, ARemovedDirectoryIsForgotten) {
  readAll();
  ASSERT_EQ(::unlink(dir("a/t/owner").c_str()), 0);
  ASSERT_EQ(::unlink(dir("a/t/relay.1").c_str()), 0);
  ASSERT_EQ(::rmdir(dir("a/t").c_str()), 0);
  watched_.refresh();
  EXPECT_EQ(watched_.version(dir("a/t")), 0U);
  EXPECT_TRUE(watched_.read(dir("a")).children.empty());
}

TEST_F(WatchedDirsTest, ARootReplacedUnderTheSamePathIsReadAgain) {
  readAll();
  const std::string moved = root() + ".old";
  ASSERT_EQ(::rename(root().c_str(), moved.c_str()), 0);
  ASSERT_EQ(::mkdir(root().c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(dir("c").c_str(), 0755), 0);
  watched_.refresh();
  const Mem::TableFinder::Directory top = watched_.read(root());
  EXPECT_TRUE(holds(top, "c"));
  EXPECT_FALSE(holds(top, "a"));
  EXPECT_EQ(watched_.version(dir("a/t")), 0U);
  // The old tree goes with the test's directory: put it back in place.
  ASSERT_EQ(::rmdir(dir("c").c_str()), 0);
  ASSERT_EQ(::rmdir(root().c_str()), 0);
  ASSERT_EQ(::rename(moved.c_str(), root().c_str()), 0);
}

TEST_F(WatchedDirsTest, ADirectoryReadKeepsTheDeviceItWasReadOn) {
  std::optional<std::uint64_t> device;
  EXPECT_FALSE(watched_.device(dir("a/t"), device));
  readAll();
  struct stat st {};
  ASSERT_EQ(::stat(dir("a/t").c_str(), &st), 0);
  ASSERT_TRUE(watched_.device(dir("a/t"), device));
  ASSERT_TRUE(device.has_value());  // tmpfs, or /tmp's file system
  EXPECT_EQ(*device, static_cast<std::uint64_t>(st.st_dev));
}

TEST_F(WatchedDirsTest, APathThatNowLeadsToAnotherDirectoryIsReadAgain) {
  // A symlink repointed makes an event in its own directory, none in the
  // directories it led to, and none names the path through it.
  ASSERT_EQ(::mkdir(dir("b").c_str(), 0755), 0);
  touchFile(dir("b/region.1"));
  ASSERT_EQ(::symlink("a", dir("via").c_str()), 0);
  watched_.refresh();
  EXPECT_TRUE(holds(watched_.read(dir("via/t")), "relay.1"));
  ASSERT_EQ(::symlink("b", dir("via.new").c_str()), 0);
  ASSERT_EQ(::rename(dir("via.new").c_str(), dir("via").c_str()), 0);
  watched_.refresh();
  EXPECT_EQ(watched_.version(dir("via/t")), 0U);
  EXPECT_TRUE(holds(watched_.read(dir("via")), "region.1"));
}

TEST(WatchedDirsBudget, DirectoriesBeyondTheWatchBudgetAreReadEveryTime) {
  HeronTest::TempDir root("heron-watch", true);
  ASSERT_EQ(::mkdir(root.file("a").c_str(), 0755), 0);
  Stat::WatchedDirs watched(HeronTest::quietHandler(), 1);
  watched.refresh();
  watched.read(root.path());
  watched.read(root.file("a"));
  EXPECT_NE(watched.version(root.path()), 0U);
  EXPECT_EQ(watched.version(root.file("a")), 0U);
  const std::uint64_t reads = watched.reads();
  watched.refresh();
  watched.read(root.path());
  watched.read(root.file("a"));
  EXPECT_EQ(watched.reads(), reads + 1);
}

}  // namespace

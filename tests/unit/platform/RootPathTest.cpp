#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <sstream>
#include <string>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"
#include "support/Handler.h"
#include "support/Run.h"

namespace {

using HeronTest::quietHandler;

// Saves and restores the environment variables and working directory that
// root resolution depends on.
class RootPathTest : public testing::Test {
 protected:
  void SetUp() override {
    save("HERON_ROOT", heronRoot_);
    save("Q7_CHROOT", chroot_);
    char cwd[PATH_MAX];
    ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
    cwd_ = cwd;
    ::unsetenv("HERON_ROOT");
    ::unsetenv("Q7_CHROOT");
  }
  // HERON_ROOT names "link", a symbolic link to the directory "real".
  void linkedRoot() {
    ASSERT_EQ(::mkdir(temp.file("real").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("real", temp.file("link").c_str()), 0);
    ::setenv("HERON_ROOT", temp.file("link").c_str(), 1);
  }
  void TearDown() override {
    restore("HERON_ROOT", heronRoot_);
    restore("Q7_CHROOT", chroot_);
    EXPECT_EQ(::chdir(cwd_.c_str()), 0);
  }

  HeronTest::TempRoot temp;

 private:
  struct Saved {
    bool set = false;
    std::string value;
  };
  static void save(const char* name, Saved& saved) {
    const char* value = std::getenv(name);
    saved.set = value != nullptr;
    saved.value = value != nullptr ? value : "";
  }
  static void restore(const char* name, const Saved& saved) {
    if (saved.set) {
      ::setenv(name, saved.value.c_str(), 1);
    } else {
      ::unsetenv(name);
    }
  }
  Saved heronRoot_;
  Saved chroot_;
  std::string cwd_;
};

TEST_F(RootPathTest, DefaultRootIsDevShmHeron) { EXPECT_EQ(Mem::OrbRootPath::collectionRoot(), "/dev/shm/heron"); }

TEST_F(RootPathTest, EmptyHeronRootMeansDefault) {
  ::setenv("HERON_ROOT", "", 1);
  EXPECT_EQ(Mem::OrbRootPath::collectionRoot(), "/dev/shm/heron");
}

TEST_F(RootPathTest, HeronRootIsUsed) {
  ::setenv("HERON_ROOT", temp.path().c_str(), 1);
  EXPECT_EQ(Mem::OrbRootPath::collectionRoot(), temp.path());
}

TEST_F(RootPathTest, ExistingRootIsCanonicalised) {
  ASSERT_EQ(::mkdir(temp.file("real").c_str(), 0755), 0);
  ASSERT_EQ(::symlink(temp.file("real").c_str(), temp.file("alias").c_str()), 0);
  ::setenv("HERON_ROOT", (temp.path() + "/./alias/").c_str(), 1);
  EXPECT_EQ(Mem::OrbRootPath::collectionRoot(), temp.file("real"));
}

TEST_F(RootPathTest, MissingRootKeepsItsTextWithoutTrailingSlashes) {
  ::setenv("HERON_ROOT", "/no/such/root//", 1);
  EXPECT_EQ(Mem::OrbRootPath::collectionRoot(), "/no/such/root");
}

TEST_F(RootPathTest, ChrootTakesRootRelativeToWorkingDirectory) {
  ASSERT_EQ(::chdir(temp.path().c_str()), 0);
  ::setenv("Q7_CHROOT", "1", 1);
  ::setenv("HERON_ROOT", "/jail/heron", 1);
  EXPECT_EQ(Mem::OrbRootPath::collectionRoot(), temp.path() + "/jail/heron");
}

TEST_F(RootPathTest, ChrootAppliesToTheDefaultRoot) {
  ASSERT_EQ(::chdir(temp.path().c_str()), 0);
  ::setenv("Q7_CHROOT", "", 1);
  EXPECT_EQ(Mem::OrbRootPath::collectionRoot(), temp.path() + "/dev/shm/heron");
}

TEST_F(RootPathTest, ChrootRootIsCanonicalisedWhenItExists) {
  ASSERT_EQ(::mkdir(temp.file("jail").c_str(), 0755), 0);
  ASSERT_EQ(::symlink("jail", temp.file("link").c_str()), 0);
  ASSERT_EQ(::chdir(temp.path().c_str()), 0);
  ::setenv("Q7_CHROOT", "yes", 1);
  ::setenv("HERON_ROOT", "link", 1);
  EXPECT_EQ(Mem::OrbRootPath::collectionRoot(), temp.file("jail"));
}

TEST_F(RootPathTest, EmptyPathGivesTheCollectionRoot) {
  ::setenv("HERON_ROOT", temp.path().c_str(), 1);
  Mem::OrbRootPath root(quietHandler(), "", false);
  EXPECT_EQ(root.path(), temp.path());
}

TEST_F(RootPathTest, RelativeNameGivesTheTableUnderTheRoot) {
  ::setenv("HERON_ROOT", temp.path().c_str(), 1);
  Mem::OrbRootPath root(quietHandler(), "md/eu/quotes", true);
  EXPECT_EQ(root.path(), temp.path() + "/md/eu/quotes");
}

TEST_F(RootPathTest, ExistingTableUnderASymlinkedRootResolvesThroughTheLink) {
  ASSERT_NO_FATAL_FAILURE(linkedRoot());
  ASSERT_EQ(::mkdir(temp.file("real/md").c_str(), 0755), 0);
  Mem::OrbRootPath root(quietHandler(), "md", false);
  EXPECT_EQ(root.path(), temp.file("real") + "/md");
}

TEST_F(RootPathTest, MissingTableUnderASymlinkedRootIsPlacedUnderTheCanonicalRoot) {
  ASSERT_NO_FATAL_FAILURE(linkedRoot());
  Mem::OrbRootPath root(quietHandler(), "no/such/table", false);
  EXPECT_EQ(root.path(), temp.file("real") + "/no/such/table");
}

TEST_F(RootPathTest, AbsoluteNameIsUsedAsItStands) {
  ::setenv("HERON_ROOT", temp.path().c_str(), 1);
  Mem::OrbRootPath root(quietHandler(), "/elsewhere/table", false);
  EXPECT_EQ(root.path(), "/elsewhere/table");
}

TEST_F(RootPathTest, FullPathAndPrinting) {
  Mem::RootPath root("/r/t");
  EXPECT_EQ(root.fullPath("owner"), "/r/t/owner");
  std::ostringstream text;
  text << root;
  EXPECT_EQ(text.str(), "/r/t");
}

TEST_F(RootPathTest, VerboseResolutionIsTracedAtLevel5) {
  ::setenv("HERON_ROOT", "/no/such/root", 1);
  Beacon::Platform::DebugHandler traced("RootPathTrace", 1U << 5);
  testing::internal::CaptureStderr();
  Mem::OrbRootPath quiet(traced, "t", false);
  std::string none = testing::internal::GetCapturedStderr();
  testing::internal::CaptureStderr();
  Mem::OrbRootPath loud(traced, "t", true);
  std::string some = testing::internal::GetCapturedStderr();
  EXPECT_EQ(none, "");
  EXPECT_NE(some.find("t resolves to /no/such/root/t"), std::string::npos) << some;
}

}  // namespace

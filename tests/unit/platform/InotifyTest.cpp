#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "Mem/Inotify.h"
#include "support/Child.h"
#include "support/Ended.h"
#include "support/Handler.h"
#include "support/TempDir.h"

namespace {

using HeronTest::quietHandler;

struct Seen {
  std::string name;
  unsigned flags;
};

class Recorder : public Mem::InotifyMgr::Watcher {
 public:
  Recorder() : Mem::InotifyMgr::Watcher(quietHandler()) {}
  void notify(const std::string& fileName, unsigned flags) override { seen.push_back(Seen{fileName, flags}); }
  std::vector<Seen> seen;

  bool sawDeletionOf(const std::string& name) const {
    for (const Seen& event : seen) {
      if (event.name == name && (event.flags & IN_DELETE) != 0) {
        return true;
      }
    }
    return false;
  }
};

// inotify instances open in this process.
int inotifyInstances() {
  int count = 0;
  DIR* dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) {
    return -1;
  }
  while (const struct dirent* entry = ::readdir(dir)) {
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    char target[256] = {};
    const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
    if (n > 0 && std::string(target, static_cast<std::size_t>(n)) == "anon_inode:inotify") {
      ++count;
    }
  }
  ::closedir(dir);
  return count;
}

void touch(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << path;
  ::close(fd);
}

void createAndDelete(const std::string& path) {
  touch(path);
  ASSERT_EQ(::unlink(path.c_str()), 0) << path;
}

// A watcher and its descriptor.
struct Watched {
  bool on(const std::string& directory) { return watch.enable(directory, recorder); }
  Recorder recorder;
  Mem::WatchDescriptor watch;
};

// Two descriptors on their directories (the same one or two).
bool watching(Watched& first, const std::string& firstDir, Watched& second, const std::string& secondDir) {
  return first.on(firstDir) && second.on(secondDir);
}

class InotifyTest : public ::testing::Test {
 protected:
  HeronTest::TempDir temp_{"heron-inotify", true};
  std::string dirA_ = temp_.table("a");
  std::string dirB_ = temp_.table("b");
};

TEST_F(InotifyTest, ManyWatchesShareOneInstance) {
  Recorder watcher;
  std::vector<std::unique_ptr<Mem::WatchDescriptor>> watches;
  for (int i = 0; i < 50; ++i) {
    watches.push_back(std::make_unique<Mem::WatchDescriptor>());
    ASSERT_TRUE(watches.back()->enable(temp_.table("t" + std::to_string(i)), watcher));
  }
  EXPECT_EQ(inotifyInstances(), 1);
  watches.clear();
  for (int i = 0; i < 50; ++i) {
    Mem::WatchDescriptor watch;
    ASSERT_TRUE(watch.enable(dirA_, watcher));
  }
  EXPECT_EQ(inotifyInstances(), 1);
}

TEST_F(InotifyTest, DisablingRemovesTheWatchFromTheSharedInstance) {
  Recorder watcher;
  const std::size_t before = Mem::InotifyMgr::instance().watchCount();
  {
    Mem::WatchDescriptor watch;
    ASSERT_TRUE(watch.enable(dirA_, watcher));
    EXPECT_EQ(Mem::InotifyMgr::instance().watchCount(), before + 1);
  }
  EXPECT_EQ(Mem::InotifyMgr::instance().watchCount(), before);
}

TEST_F(InotifyTest, EachDescriptorReceivesOnlyItsOwnDirectorysEvents) {
  Watched a;
  Watched b;
  ASSERT_TRUE(watching(a, dirA_, b, dirB_));
  createAndDelete(dirA_ + "/region.1");
  createAndDelete(dirB_ + "/region.2");
  EXPECT_EQ(a.watch.poll(), 2);  // created, deleted
  EXPECT_TRUE(a.recorder.sawDeletionOf("region.1"));
  EXPECT_FALSE(a.recorder.sawDeletionOf("region.2"));
  // B's events were read from the shared instance by A's poll and kept for B.
  EXPECT_EQ(b.watch.poll(), 2);
  EXPECT_TRUE(b.recorder.sawDeletionOf("region.2"));
}

TEST_F(InotifyTest, TwoDescriptorsOnOneDirectoryBothReceiveEachEvent) {
  Watched first;
  Watched second;
  ASSERT_TRUE(watching(first, dirA_, second, dirA_));
  createAndDelete(dirA_ + "/region.3");
  first.watch.poll();
  second.watch.poll();
  EXPECT_TRUE(first.recorder.sawDeletionOf("region.3"));
  EXPECT_TRUE(second.recorder.sawDeletionOf("region.3"));
}

TEST_F(InotifyTest, DisablingOneOfTwoDescriptorsOnADirectoryKeepsTheOther) {
  Watched first;
  Watched second;
  ASSERT_TRUE(watching(first, dirA_, second, dirA_));
  first.watch.disable();
  createAndDelete(dirA_ + "/region.4");
  second.watch.poll();
  EXPECT_TRUE(second.recorder.sawDeletionOf("region.4"));
  EXPECT_TRUE(first.recorder.seen.empty());
}

TEST_F(InotifyTest, NothingIsDeliveredAfterDisable) {
  Watched watched;
  ASSERT_TRUE(watched.on(dirA_));
  createAndDelete(dirA_ + "/region.5");
  watched.watch.disable();
  EXPECT_FALSE(watched.watch.enabled());
  EXPECT_EQ(watched.watch.poll(), 0);
  EXPECT_TRUE(watched.recorder.seen.empty());
}

TEST_F(InotifyTest, AMissingDirectoryCannotBeWatched) {
  Recorder watcher;
  Mem::WatchDescriptor watch;
  EXPECT_FALSE(watch.enable(temp_.path() + "/missing", watcher));
  EXPECT_FALSE(watch.enabled());
}

TEST_F(InotifyTest, ARemovedDirectoryEndsItsWatchWithIgnored) {
  const std::string gone = temp_.table("gone");
  Recorder watcher;
  Mem::WatchDescriptor watch;
  const std::size_t before = Mem::InotifyMgr::instance().watchCount();
  ASSERT_TRUE(watch.enable(gone, watcher));
  ASSERT_EQ(::rmdir(gone.c_str()), 0);
  watch.poll();
  ASSERT_FALSE(watcher.seen.empty());
  EXPECT_NE(watcher.seen.back().flags & IN_IGNORED, 0U);
  EXPECT_EQ(Mem::InotifyMgr::instance().watchCount(), before);
}

TEST_F(InotifyTest, EventsBeyondTheQueueLimitBecomeOneOverflow) {
  Watched busy;
  Watched other;
  ASSERT_TRUE(watching(busy, dirA_, other, dirB_));
  // Created in rounds below the kernel's own queue limit; the other
  // descriptor's polls move them into the busy descriptor's queue.
  const std::size_t total = Mem::InotifyMgr::kMaxPendingEvents + 100;
  for (std::size_t i = 0; i < total; ++i) {
    touch(dirA_ + "/f" + std::to_string(i));
    if (i % 4096 == 4095) {
      other.watch.poll();
    }
  }
  other.watch.poll();
  EXPECT_EQ(busy.watch.poll(), static_cast<int>(Mem::InotifyMgr::kMaxPendingEvents) + 1);
  ASSERT_EQ(busy.recorder.seen.size(), Mem::InotifyMgr::kMaxPendingEvents + 1);
  EXPECT_EQ(busy.recorder.seen.front().name, "f0");
  EXPECT_EQ(busy.recorder.seen.back().flags, static_cast<unsigned>(IN_Q_OVERFLOW));
  EXPECT_EQ(busy.recorder.seen.back().name, "");
  EXPECT_TRUE(other.recorder.seen.empty());
}

TEST_F(InotifyTest, AForkedChildWatchesOnItsOwnInstanceWithoutTakingTheParentsEvents) {
  touch(dirA_ + "/region.6");
  touch(dirB_ + "/region.7");
  Recorder parent;
  Mem::WatchDescriptor parentWatch;
  ASSERT_TRUE(parentWatch.enable(dirA_, parent));
  ASSERT_EQ(::unlink((dirA_ + "/region.6").c_str()), 0);
  HeronTest::Child child([&] {
    // The inherited descriptor delivers nothing here; a new one works.
    int status = parentWatch.poll() == 0 ? 0 : 10;
    Recorder own;
    Mem::WatchDescriptor ownWatch;
    if (!ownWatch.enable(dirB_, own)) {
      return 11;
    }
    ::unlink((dirB_ + "/region.7").c_str());
    ownWatch.poll();
    if (!own.sawDeletionOf("region.7")) {
      status = 12;
    }
    return status;
  });
  ASSERT_TRUE(HeronTest::endedWell(child.wait()));
  parentWatch.poll();
  EXPECT_TRUE(parent.sawDeletionOf("region.6"));
}

}  // namespace

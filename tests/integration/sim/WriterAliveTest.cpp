// heron-sim write refuses a table whose previous writer still runs and
// beats, and judges the beat on the monotonic clock when the ember holds
// one: a wall-clock beat that looks old (the wall clock stepped) does not let
// a second writer in, and a fresh wall-clock beat beside an old monotonic one
// does not keep a restart out. Embers without a monotonic beat are judged on
// the wall clock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "SharedMem/Ember.h"
#include "support/Run.h"

namespace HeronTest {
namespace {

constexpr std::uint64_t kSecondNs = 1000000000ULL;

class WriterAlive : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(root.create("t"));
    // A real writer makes the ember; it then stands for one whose pid is
    // this test process, alive but not a heron-sim.
    RunResult first = write();
    ASSERT_EQ(first.status, 0) << first.describe() << ": " << first.err;
  }

  RunResult write() const {
    return run({simBin(), "write", "t", "--rate", "10", "--duration", "1"}, root.env(), "", "", 30);
  }

  // Rewrites the ember's writer pid and its two beats.
  void beat(std::uint64_t wallNs, std::uint64_t monoNs) const {
    const std::string path = root.file("t/ember");
    int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0) << path;
    SharedMem::EmberHeader ember{};
    ASSERT_EQ(::pread(fd, &ember, sizeof ember, 0), static_cast<ssize_t>(sizeof ember));
    ember.writerPid = static_cast<std::uint32_t>(::getpid());
    ember.heartbeatNs = wallNs;
    ember.heartbeatMonoNs = monoNs;
    ASSERT_EQ(::pwrite(fd, &ember, sizeof ember, 0), static_cast<ssize_t>(sizeof ember));
    ::close(fd);
  }

  void expectRefused() const {
    RunResult second = write();
    EXPECT_EQ(second.status, 1) << second.describe();
    EXPECT_EQ(second.err, "heron-sim write: " + root.file("t") + " already has a writer (pid " +
                              std::to_string(::getpid()) + ")\n");
    EXPECT_EQ(second.out, "");
  }

  void expectTakenOver() const {
    RunResult second = write();
    EXPECT_EQ(second.status, 0) << second.describe() << ": " << second.err;
    EXPECT_EQ(second.out.rfind("writer ", 0), 0U) << second.out;
  }

  TempRoot root;
};

TEST_F(WriterAlive, AFreshMonotonicBeatRefusesEvenWhenTheWallBeatLooksOld) {
  beat(0, SharedMem::monoNs());
  expectRefused();
}

TEST_F(WriterAlive, AnOldMonotonicBeatIsTakenOverEvenWhenTheWallBeatLooksFresh) {
  beat(SharedMem::nowNs(), SharedMem::monoNs() - 10 * kSecondNs);
  expectTakenOver();
}

TEST_F(WriterAlive, AMonotonicBeatFromTheFutureIsNoSignOfLife) {
  beat(SharedMem::nowNs(), SharedMem::monoNs() + 3600 * kSecondNs);
  expectTakenOver();
}

TEST_F(WriterAlive, WithoutAMonotonicBeatAFreshWallBeatRefuses) {
  beat(SharedMem::nowNs(), 0);
  expectRefused();
}

TEST_F(WriterAlive, WithoutAMonotonicBeatAnOldWallBeatIsTakenOver) {
  beat(SharedMem::nowNs() - 10 * kSecondNs, 0);
  expectTakenOver();
}

}  // namespace
}  // namespace HeronTest

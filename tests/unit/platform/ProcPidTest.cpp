#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Beacon/Platform.h"
#include "Beacon/ProcPid.h"
#include "support/Handler.h"
#include "support/Run.h"

namespace {

using Beacon::Proc::Access;
using Beacon::Proc::PidNamespaceIndex;
using Beacon::Proc::PidStatus;

using HeronTest::quietHandler;

// A fake /proc: one directory per process with a status file and, when a
// namespace is given, an ns/pid link whose text is what the kernel shows.
class FakeStatusProc {
 public:
  void add(int pid, const std::string& nsLink, const std::string& status) {
    const std::string dir = root_.file(std::to_string(pid));
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    ASSERT_TRUE(HeronTest::writeFile(dir + "/status", status));
    if (!nsLink.empty()) {
      ASSERT_EQ(::mkdir((dir + "/ns").c_str(), 0755), 0);
      ASSERT_EQ(::symlink(nsLink.c_str(), (dir + "/ns/pid").c_str()), 0);
    }
  }
  const std::string& path() const { return root_.path(); }

 private:
  HeronTest::TempRoot root_;
};

std::string status(const char* state, const std::string& pid, const std::string& nsPid) {
  return "Name:\theron-sim\nUmask:\t0022\nState:\t" + std::string(state) + "\nTgid:\t" + pid + "\nPid:\t" + pid +
         "\nPPid:\t1\n" + (nsPid.empty() ? std::string() : "NSpid:\t" + nsPid + "\n") + "Threads:\t1\n";
}

TEST(ProcPid, ReadsTheNamespaceInodeFromTheLinkText) {
  FakeStatusProc proc;
  proc.add(40, "pid:[4026532001]", status("S (sleeping)", "40", "40\t1"));
  proc.add(41, "net:[4026532001]", status("S (sleeping)", "41", "41"));
  proc.add(42, "pid:[]", status("S (sleeping)", "42", "42"));
  Access access = Access::Denied;
  EXPECT_EQ(Beacon::Proc::readPidNamespace("40", proc.path(), &access), 4026532001ULL);
  EXPECT_EQ(access, Access::Read);
  EXPECT_EQ(Beacon::Proc::readPidNamespace("41", proc.path(), &access), 0U);
  EXPECT_EQ(Beacon::Proc::readPidNamespace("42", proc.path()), 0U);
  EXPECT_EQ(Beacon::Proc::readPidNamespace("43", proc.path(), &access), 0U);
  EXPECT_EQ(access, Access::Gone);
}

TEST(ProcPid, OwnNamespaceIsTheInodeOfTheLinkTarget) {
  struct stat own {};
  ASSERT_EQ(::stat("/proc/self/ns/pid", &own), 0);
  EXPECT_EQ(Beacon::Proc::readPidNamespace("self"), static_cast<std::uint64_t>(own.st_ino));
}

TEST(ProcPid, StatusGivesStateAndThePidsOutermostFirst) {
  FakeStatusProc proc;
  proc.add(4711, "", status("S (sleeping)", "4711", "4711\t12\t1"));
  proc.add(4712, "", status("Z (zombie)", "4712", "4712"));
  proc.add(4713, "", status("R (running)", "4713", ""));
  proc.add(4714, "", "Name:\tx\nState:\tS (sleeping)\nNSpid:\t12 x\n");
  PidStatus read;
  ASSERT_TRUE(Beacon::Proc::readPidStatus(4711, read, proc.path()));
  EXPECT_EQ(read.state, 'S');
  EXPECT_EQ(read.nsPids, (std::vector<std::uint32_t>{4711, 12, 1}));
  EXPECT_EQ(read.innermostPid(), 1U);
  EXPECT_FALSE(read.exited());
  ASSERT_TRUE(Beacon::Proc::readPidStatus(4712, read, proc.path()));
  EXPECT_TRUE(read.exited());
  // An old kernel without NSpid: the Pid line is the only view.
  ASSERT_TRUE(Beacon::Proc::readPidStatus(4713, read, proc.path()));
  EXPECT_EQ(read.innermostPid(), 4713U);
  EXPECT_FALSE(Beacon::Proc::readPidStatus(4714, read, proc.path()));
  EXPECT_FALSE(Beacon::Proc::readPidStatus(4715, read, proc.path()));
}

TEST(ProcPid, OwnStatusEndsWithOurOwnPid) {
  PidStatus read;
  ASSERT_TRUE(Beacon::Proc::readPidStatus(static_cast<int>(::getpid()), read));
  EXPECT_EQ(read.innermostPid(), static_cast<std::uint32_t>(::getpid()));
}

TEST(PidNamespaceIndex, FindsTheLiveProcessByItsInnermostPidInThatNamespace) {
  FakeStatusProc proc;
  // Host pid 1 has the same number as the container's writer: another namespace.
  proc.add(1, "pid:[4026531836]", status("S (sleeping)", "1", "1"));
  proc.add(500, "pid:[4026532100]", status("S (sleeping)", "500", "500\t1"));
  proc.add(501, "pid:[4026532100]", status("S (sleeping)", "501", "501\t7"));
  proc.add(502, "pid:[4026532200]", status("Z (zombie)", "502", "502\t1"));
  proc.add(503, "pid:[4026532300]", status("S (sleeping)", "503", "503\t9"));
  ASSERT_EQ(::mkdir((proc.path() + "/self").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((proc.path() + "/self/ns").c_str(), 0755), 0);
  ASSERT_EQ(::symlink("pid:[4026531836]", (proc.path() + "/self/ns/pid").c_str()), 0);
  PidNamespaceIndex index(quietHandler(), proc.path());
  EXPECT_EQ(index.own(), Beacon::Proc::kInitialPidNamespace);
  EXPECT_EQ(index.find(4026532100ULL, 1), 500);
  EXPECT_EQ(index.find(4026532100ULL, 7), 501);
  EXPECT_EQ(index.find(4026532100ULL, 9), 0);
  EXPECT_EQ(index.find(4026531836ULL, 1), 1);
  EXPECT_EQ(index.find(4026532200ULL, 1), 0);  // a zombie is no live writer
  EXPECT_EQ(index.processesIn(4026532200ULL), std::vector<int>{502});
  EXPECT_TRUE(index.processesIn(4026532999ULL).empty());
  EXPECT_TRUE(index.complete());
}

TEST(PidNamespaceIndex, AnUnreadableProcIsIncomplete) {
  PidNamespaceIndex index(quietHandler(), "/nonexistent/proc");
  EXPECT_TRUE(index.processesIn(4026532100ULL).empty());
  EXPECT_FALSE(index.complete());
  EXPECT_EQ(index.own(), 0U);
}

TEST(PidNamespaceIndex, SeesThisProcessInItsOwnNamespace) {
  PidNamespaceIndex index(quietHandler());
  const std::uint64_t own = index.own();
  ASSERT_NE(own, 0U);
  PidStatus self;
  ASSERT_TRUE(Beacon::Proc::readPidStatus(static_cast<int>(::getpid()), self));
  EXPECT_EQ(index.find(own, self.innermostPid()), static_cast<int>(::getpid()));
}

}  // namespace

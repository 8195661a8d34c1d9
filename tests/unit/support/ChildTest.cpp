// The tests' own way of running programs: what the runner promises (no
// shell, exact environment, both streams, a time limit) and the background
// child (a bounded wait for its first lines, killed and reaped at the end),
// also when it runs a function of the test.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "support/Child.h"
#include "support/Run.h"
#include "support/TempDir.h"

namespace {

using HeronTest::Child;
using HeronTest::run;
using HeronTest::RunResult;

TEST(SupportRun, CapturesStandardOutputByteForByte) {
  RunResult result = run({"printf", "a\\nb"}, {});
  EXPECT_TRUE(result.exited()) << result.describe();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "a\nb");
  EXPECT_EQ(result.err, "");
}

TEST(SupportRun, CapturesStandardErrorAndTheStatus) {
  RunResult result = run({"ls", "/nonexistent-heron-test-path"}, {"LC_ALL=C"});
  EXPECT_EQ(result.status, 2) << result.describe();
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find("/nonexistent-heron-test-path"), std::string::npos) << result.err;
}

TEST(SupportRun, ArgumentsReachTheProgramUnquoted) {
  RunResult result = run({"printf", "%s|", "two words", "'quoted'", "$HOME", "*"}, {});
  EXPECT_EQ(result.out, "two words|'quoted'|$HOME|*|");
}

TEST(SupportRun, TheEnvironmentIsExactlyTheOneGiven) {
  RunResult result = run({"env"}, {"HERON_TEST_A=1"});
  EXPECT_EQ(result.status, 0) << result.describe();
  EXPECT_NE(result.out.find("HERON_TEST_A=1\n"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find("PATH="), std::string::npos) << result.out;
}

TEST(SupportRun, RunsInTheDirectoryGiven) {
  RunResult result = run({"pwd"}, {}, "/");
  EXPECT_EQ(result.out, "/\n");
}

TEST(SupportRun, AMissingProgramIsStatus127WithTheReason) {
  RunResult result = run({"/nonexistent-heron-test-path/prog"}, {});
  EXPECT_EQ(result.status, 127) << result.describe();
  EXPECT_NE(result.err.find("cannot run /nonexistent-heron-test-path/prog"), std::string::npos) << result.err;
}

TEST(SupportRun, AHangIsKilledAtTheTimeLimit) {
  RunResult result = run({"sleep", "600"}, {}, "", "", 1);
  EXPECT_TRUE(result.timedOut);
  EXPECT_FALSE(result.exited());
  EXPECT_EQ(result.describe(), "timed out");
}

TEST(SupportRun, StandardOutputCanBeClosed) {
  HeronTest::ChildOptions options;
  options.output = HeronTest::ChildOptions::Output::Closed;
  RunResult result = run({"printf", "x"}, {"LC_ALL=C"}, options);
  EXPECT_NE(result.status, 0) << result.describe();
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find("Bad file descriptor"), std::string::npos) << result.err;
}

TEST(SupportRun, StandardOutputCanGoToAFullDevice) {
  HeronTest::ChildOptions options;
  options.output = HeronTest::ChildOptions::Output::File;
  options.outputFile = "/dev/full";
  RunResult result = run({"printf", "x"}, {"LC_ALL=C"}, options);
  EXPECT_NE(result.status, 0) << result.describe();
  EXPECT_NE(result.err.find("No space left on device"), std::string::npos) << result.err;
}

TEST(SupportRun, NoFileGrowthMakesWritesFailWithoutASignal) {
  HeronTest::TempDir dir("heron-child");
  HeronTest::ChildOptions options;
  options.noFileGrowth = true;
  RunResult result = run({"cp", "/proc/self/cmdline", dir.file("copy")}, {"LC_ALL=C"}, options);
  EXPECT_TRUE(result.exited()) << result.describe();
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("File too large"), std::string::npos) << result.err;
}

TEST(SupportChild, WaitsForTheFirstLinesThenStopsWithTheSignalGiven) {
  Child child({"yes", "ready"}, {});
  ASSERT_TRUE(child.started()) << child.error();
  ASSERT_TRUE(child.waitForLines(3));
  EXPECT_EQ(child.out().substr(0, 18), "ready\nready\nready\n");
  RunResult result = child.stop(SIGTERM);
  EXPECT_EQ(result.signal, SIGTERM) << result.describe();
  EXPECT_FALSE(result.timedOut);
}

TEST(SupportChild, WaitingForALineEndsAtTheDeadline) {
  Child child({"sleep", "600"}, {});
  ASSERT_TRUE(child.started()) << child.error();
  EXPECT_FALSE(child.waitForLines(1, 0.2));
  EXPECT_EQ(child.out(), "");
}

TEST(SupportChild, WaitingForALineEndsWhenTheChildExits) {
  Child child({"true"}, {});
  ASSERT_TRUE(child.started()) << child.error();
  EXPECT_FALSE(child.waitForLines(1, 60));
  RunResult result = child.wait();
  EXPECT_EQ(result.status, 0) << result.describe();
}

TEST(SupportChild, IsKilledAndReapedOnDestruction) {
  pid_t pid = -1;
  {
    Child child({"sleep", "600"}, {});
    ASSERT_TRUE(child.started()) << child.error();
    pid = child.pid();
    ASSERT_EQ(::kill(pid, 0), 0);
  }
  // Reaped, not a zombie: the pid is gone.
  errno = 0;
  EXPECT_EQ(::kill(pid, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST(SupportChild, AProgramThatCannotRunIsNotStarted) {
  Child child({"/nonexistent-heron-test-path/prog"}, {});
  EXPECT_FALSE(child.started());
  EXPECT_NE(child.error().find("No such file or directory"), std::string::npos) << child.error();
}

TEST(SupportChild, RunsAFunctionWithItsStreamsAndItsStatus) {
  Child child([] {
    std::printf("out %d\n", 1);
    std::fprintf(stderr, "err\n");
    return 7;
  });
  ASSERT_TRUE(child.started()) << child.error();
  ASSERT_TRUE(child.waitForLines(1, 60));
  RunResult result = child.wait();
  EXPECT_EQ(result.status, 7) << result.describe();
  EXPECT_EQ(result.out, "out 1\n");
  EXPECT_EQ(result.err, "err\n");
}

TEST(SupportChild, AFunctionRunsInAProcessOfItsOwn) {
  const pid_t parent = ::getpid();
  Child child([parent] { return ::getpid() != parent && ::getppid() == parent ? 0 : 1; });
  EXPECT_EQ(child.wait().status, 0);
}

TEST(SupportChild, RunningTurnsFalseOnceTheChildEndsAndWaitStillSaysHow) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  // The child runs until the test closes the pipe's writing end.
  Child child([fds] {
    ::close(fds[1]);
    char byte = 0;
    std::printf("ending\n");
    return ::read(fds[0], &byte, 1) == 0 ? 3 : 4;
  });
  ::close(fds[0]);
  ASSERT_TRUE(child.started()) << child.error();
  EXPECT_TRUE(child.running());
  ::close(fds[1]);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (child.running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_FALSE(child.running());
  RunResult result = child.wait();
  EXPECT_EQ(result.status, 3) << result.describe();
  EXPECT_EQ(result.out, "ending\n");
}

}  // namespace

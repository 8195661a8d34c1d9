// Scanner construction, the run-as-root warning and process names.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "unit/client/ChildOutput.h"
#include "unit/client/FakeProc.h"

namespace {

using HeronTest::FakeProc;
using HeronTest::runInChild;

constexpr const char* kWarning = "You should run this command as root.\n";

int warnWithChroot(const char* value) {
  if (value == nullptr) {
    ::unsetenv("Q7_CHROOT");
  } else {
    ::setenv("Q7_CHROOT", value, 1);
  }
  std::ostringstream reports;
  Heron::HeronClientScanner scanner(&reports, HeronTest::tableRoot("/some/table"), "");
  scanner.warnRunAsRoot();
  std::cout.flush();
  return reports.str().empty() ? 0 : 1;
}

TEST(ScannerIdentityTest, RootWithoutChrootIsNotWarned) {
  if (::getuid() != 0) {
    GTEST_SKIP() << "needs user id 0";
  }
  auto result = runInChild(-1, [] { return warnWithChroot(nullptr); });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
}

TEST(ScannerIdentityTest, OtherUserWithEmptyChrootIsNotWarned) {
  const int uid = ::getuid() == 0 ? 65534 : -1;
  auto result = runInChild(uid, [] { return warnWithChroot(""); });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
}

TEST(ScannerIdentityTest, OtherUserWithoutChrootIsWarnedOnceOnStandardOutput) {
  const int uid = ::getuid() == 0 ? 65534 : -1;
  auto result = runInChild(uid, [] { return warnWithChroot(nullptr); });
  EXPECT_EQ(result.status, 0) << "the warning must not go to the report stream";
  EXPECT_EQ(result.out, kWarning);
  EXPECT_EQ(result.err, "");
}

TEST(ScannerIdentityTest, MissingPidHasNoNameAndTraces) {
  FakeProc proc;
  std::ostringstream out;
  Heron::HeronClientScanner scanner(&out, HeronTest::tableRoot("/some/table"), "", proc.root());
  HeronTest::TraceMask mask(0x20);
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.getProcNameForPid("4711"), "");
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_NE(traces.find("file " + proc.root() + "/4711/exe no longer exists"), std::string::npos) << traces;
  EXPECT_NE(traces.find("getProcNameForPid"), std::string::npos) << traces;
  EXPECT_NE(traces.find("HeronClientScanner"), std::string::npos) << traces;
}

TEST(ScannerIdentityTest, MissingPidInRealProcHasNoName) {
  std::ostringstream out;
  Heron::HeronClientScanner scanner(&out, HeronTest::tableRoot("/some/table"), "");
  HeronTest::TraceMask mask(0x20);
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.getProcNameForPid("999999999"), "");
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_NE(traces.find("file /proc/999999999/exe no longer exists"), std::string::npos) << traces;
}

TEST(ScannerIdentityTest, NameIsLastComponentOfExeTarget) {
  FakeProc proc;
  proc.addProcess("12", "", "/usr/bin/server");
  proc.addProcess("13", "", "/usr/bin/server (deleted)");
  proc.addProcess("14", "", "server");
  std::ostringstream out;
  Heron::HeronClientScanner scanner(&out, HeronTest::tableRoot("/some/table"), "", proc.root());
  EXPECT_EQ(scanner.getProcNameForPid("12"), "server");
  EXPECT_EQ(scanner.getProcNameForPid("13"), "server (deleted)");
  EXPECT_EQ(scanner.getProcNameForPid("14"), "server");
}

TEST(ScannerIdentityTest, OwnNameFromRealProc) {
  std::ostringstream out;
  Heron::HeronClientScanner scanner(&out, HeronTest::tableRoot("/some/table"), "");
  EXPECT_EQ(scanner.getProcNameForPid(std::to_string(::getpid())), "heron_unit");
}

TEST(ScannerIdentityTest, EmptyTableNameIsAccepted) {
  std::ostringstream out;
  EXPECT_NO_THROW(Heron::HeronClientScanner(&out, HeronTest::tableRoot("/some/table"), ""));
}

TEST(ScannerIdentityTest, NullTableNameThrows) {
  std::ostringstream out;
  EXPECT_THROW(Heron::HeronClientScanner(&out, HeronTest::tableRoot("/some/table"), nullptr), std::logic_error);
}

}  // namespace

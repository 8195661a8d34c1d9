// Mapping extraction, by process (one table) and by table (every table), over
// fake process tables.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "unit/client/FakeProc.h"

namespace {

using HeronTest::FakeProc;
using HeronTest::mapsLine;

std::size_t countLines(const std::string& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

std::string ownExeName() {
  char buffer[PATH_MAX] = {};
  ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  std::string target(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
  return target.substr(target.rfind('/') + 1);
}

class ExtractionTest : public ::testing::Test {
 protected:
  FakeProc proc;
  std::ostringstream out;
  Heron::HeronClientScanner scanner{&out, HeronTest::tableRoot("/some/table"), "table", proc.root()};

  std::string maps(const std::string& pid) const { return proc.root() + "/" + pid + "/maps"; }
};

TEST_F(ExtractionTest, ByProcessKeepsEveryLineOfTheOwnTableInLineOrder) {
  proc.addProcess("4711",
                  mapsLine("r--s", "/some/table/relay.1") + mapsLine("r--s", "/some/table/relay.1") +
                      mapsLine("rw-s", "/some/table/ember"),
                  "/usr/bin/server");
  std::vector<Heron::MmapInfo> records;
  scanner.extractMmapInfo(maps("4711"), records);
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].toTraceString(), "4711|server|r--s|relay.1|");
  EXPECT_EQ(records[1].toTraceString(), "4711|server|r--s|relay.1|");
  EXPECT_EQ(records[2].toTraceString(), "4711|server|rw-s|ember|");
}

TEST_F(ExtractionTest, ByTableGroupsTheSameLinesUnderTheDirectory) {
  proc.addProcess("4711",
                  mapsLine("r--s", "/some/table/relay.1") + mapsLine("r--s", "/some/table/relay.1") +
                      mapsLine("rw-s", "/some/table/ember"),
                  "/usr/bin/server");
  Heron::HeronClientScanner::TableToInfoMap tables;
  scanner.extractMmapInfoByTable(maps("4711"), tables);
  ASSERT_EQ(tables.size(), 1U);
  const auto& records = tables.at("/some/table");
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].heronFileType, "relay.1");
  EXPECT_EQ(records[1].heronFileType, "relay.1");
  EXPECT_EQ(records[2].heronFileType, "ember");
}

TEST_F(ExtractionTest, OtherTableIsIgnoredByProcessAndKeyedByTable) {
  proc.addProcess("12", mapsLine("r--s", "/other/table/relay.1"), "/usr/bin/view");
  std::vector<Heron::MmapInfo> records;
  scanner.extractMmapInfo(maps("12"), records);
  EXPECT_TRUE(records.empty());
  Heron::HeronClientScanner::TableToInfoMap tables;
  scanner.extractMmapInfoByTable(maps("12"), tables);
  ASSERT_EQ(tables.count("/other/table"), 1U);
  EXPECT_EQ(tables.at("/other/table").front().toTraceString(), "12|view|r--s|relay.1|");
}

TEST_F(ExtractionTest, DeletedMappingStillMatches) {
  proc.addProcess("12", mapsLine("r--s", "/some/table/relay.1 (deleted)"), "/usr/bin/view");
  std::vector<Heron::MmapInfo> records;
  scanner.extractMmapInfo(maps("12"), records);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].heronFileType, "relay.1");
  Heron::HeronClientScanner::TableToInfoMap tables;
  scanner.extractMmapInfoByTable(maps("12"), tables);
  EXPECT_EQ(tables.count("/some/table"), 1U);
}

TEST_F(ExtractionTest, PathWithoutSlashIsIgnoredByBothForms) {
  proc.addProcess("12", mapsLine("rw-p", "[heap]") + mapsLine("rw-p", "[stack]") + mapsLine("r--s", "ember"),
                  "/usr/bin/view");
  std::vector<Heron::MmapInfo> records;
  scanner.extractMmapInfo(maps("12"), records);
  EXPECT_TRUE(records.empty());
  Heron::HeronClientScanner::TableToInfoMap tables;
  scanner.extractMmapInfoByTable(maps("12"), tables);
  EXPECT_TRUE(tables.empty());
}

TEST_F(ExtractionTest, SimilarNamesAreNotHeronFiles) {
  proc.addProcess("12",
                  mapsLine("r--s", "/some/table/relay.10") + mapsLine("r--s", "/some/table/relay.2") +
                      mapsLine("r--s", "/some/table/Ember") + mapsLine("r--s", "/some/table/quarry"),
                  "/usr/bin/view");
  std::vector<Heron::MmapInfo> records;
  scanner.extractMmapInfo(maps("12"), records);
  EXPECT_TRUE(records.empty());
  Heron::HeronClientScanner::TableToInfoMap tables;
  scanner.extractMmapInfoByTable(maps("12"), tables);
  EXPECT_TRUE(tables.empty());
}

TEST_F(ExtractionTest, DirectoryWithOnlyOneHeronFileIsStillAKey) {
  proc.addProcess("12", mapsLine("r--s", "/x/ember"), "/usr/bin/view");
  Heron::HeronClientScanner::TableToInfoMap tables;
  scanner.extractMmapInfoByTable(maps("12"), tables);
  EXPECT_EQ(tables.count("/x"), 1U);
}

TEST_F(ExtractionTest, SelfWithErrnoSetIsSkipped) {
  proc.addProcess("self", mapsLine("r--s", "/some/table/relay.1"), "/usr/bin/server");
  std::vector<Heron::MmapInfo> records;
  errno = ENOENT;
  scanner.extractMmapInfo(maps("self"), records);
  EXPECT_TRUE(records.empty());
  Heron::HeronClientScanner::TableToInfoMap tables;
  errno = ENOENT;
  scanner.extractMmapInfoByTable(maps("self"), tables);
  EXPECT_TRUE(tables.empty());
}

TEST_F(ExtractionTest, SelfWithErrnoClearIsPidZeroWithOwnProcessName) {
  char target[PATH_MAX] = {};
  ASSERT_GT(::readlink("/proc/self/exe", target, sizeof(target) - 1), 0);
  proc.addProcess("self", mapsLine("r--s", "/some/table/relay.1"), target);
  std::vector<Heron::MmapInfo> records;
  errno = 0;
  scanner.extractMmapInfo(maps("self"), records);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].pid, 0);
  EXPECT_EQ(records[0].procName, ownExeName());
}

TEST_F(ExtractionTest, EmptyMapsFileAddsAndTracesNothingButTheStart) {
  proc.addProcess("12", "", "/usr/bin/view");
  HeronTest::TraceMask mask(0x221);
  std::vector<Heron::MmapInfo> records;
  testing::internal::CaptureStderr();
  scanner.extractMmapInfo(maps("12"), records);
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(countLines(traces), 1U) << traces;
  EXPECT_NE(traces.find("Extracting mmap info for rootpath: /some/table, filePath: " + maps("12")), std::string::npos)
      << traces;
}

TEST_F(ExtractionTest, AnonymousOnlyMapsFileAddsAndTracesNothingButTheStart) {
  proc.addProcess("12", mapsLine("rw-p", "") + mapsLine("r-xp", "") + "\n", "/usr/bin/view");
  HeronTest::TraceMask mask(0x221);
  Heron::HeronClientScanner::TableToInfoMap tables;
  testing::internal::CaptureStderr();
  scanner.extractMmapInfoByTable(maps("12"), tables);
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(tables.empty());
  EXPECT_EQ(countLines(traces), 1U) << traces;
  EXPECT_NE(traces.find("Extracting mmap info by table for rootpath: /some/table, filePath: " + maps("12")),
            std::string::npos)
      << traces;
}

TEST_F(ExtractionTest, PerLineTracesAtLevelNine) {
  proc.addProcess("12", mapsLine("r--s", "/some/table/ember"), "/usr/bin/view");
  HeronTest::TraceMask mask(0x200);
  std::vector<Heron::MmapInfo> records;
  testing::internal::CaptureStderr();
  scanner.extractMmapInfo(maps("12"), records);
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_NE(traces.find("mmapRegion: /some/table/ember"), std::string::npos) << traces;
  EXPECT_NE(traces.find("heronFileType: ember"), std::string::npos) << traces;
  EXPECT_NE(traces.find("Added: 12|view|r--s|ember|"), std::string::npos) << traces;
  EXPECT_NE(traces.find("extractMmapInfo"), std::string::npos) << traces;
}

TEST_F(ExtractionTest, UnreadableExeLinkContributesNothing) {
  proc.addProcess("12", mapsLine("r--s", "/some/table/relay.1"), "");
  HeronTest::TraceMask mask(0x20);
  std::vector<Heron::MmapInfo> records;
  testing::internal::CaptureStderr();
  scanner.extractMmapInfo(maps("12"), records);
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(records.empty());
  EXPECT_NE(traces.find("file " + proc.root() + "/12/exe no longer exists"), std::string::npos) << traces;
  Heron::HeronClientScanner::TableToInfoMap tables;
  scanner.extractMmapInfoByTable(maps("12"), tables);
  EXPECT_TRUE(tables.empty());
}

TEST_F(ExtractionTest, VanishedMapsFileIsSkippedWithTrace) {
  proc.addProcess("12", "", "/usr/bin/view");
  ::unlink(maps("12").c_str());
  HeronTest::TraceMask mask(0x20);
  std::vector<Heron::MmapInfo> records;
  testing::internal::CaptureStderr();
  scanner.extractMmapInfo(maps("12"), records);
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(records.empty());
  EXPECT_NE(traces.find("file " + maps("12") + " no longer exists"), std::string::npos) << traces;
}

TEST_F(ExtractionTest, LastLineWithoutNewlineIsRead) {
  std::string text = mapsLine("r--s", "/some/table/relay.1");
  text.pop_back();
  proc.addProcess("12", text, "/usr/bin/view");
  std::vector<Heron::MmapInfo> records;
  scanner.extractMmapInfo(maps("12"), records);
  EXPECT_EQ(records.size(), 1U);
}

TEST_F(ExtractionTest, ExistingRecordsAreKept) {
  proc.addProcess("12", mapsLine("r--s", "/some/table/relay.1"), "/usr/bin/view");
  std::vector<Heron::MmapInfo> records;
  records.emplace_back(1, "a", "r--s", "ember");
  scanner.extractMmapInfo(records);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].toTraceString(), "1|a|r--s|ember|");
  EXPECT_EQ(records[1].toTraceString(), "12|view|r--s|relay.1|");
}

TEST_F(ExtractionTest, WalkVisitsEveryProcessWithAMapsFile) {
  proc.addProcess("12", mapsLine("r--s", "/some/table/relay.1") + mapsLine("r--s", "/t2/ember"), "/usr/bin/view");
  proc.addProcess("40", mapsLine("rw-s", "/some/table/ember"), "/usr/bin/feed");
  proc.addProcess("41", mapsLine("rw-s", "/some/table/ember"), "");  // kernel thread: no exe
  proc.addPlainFile("cpuinfo");
  proc.addDirWithoutMaps("sys");
  std::vector<Heron::MmapInfo> records;
  scanner.extractMmapInfo(records);
  std::vector<std::string> texts;
  for (const auto& record : records) {
    texts.push_back(record.toTraceString());
  }
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts, (std::vector<std::string>{"12|view|r--s|relay.1|", "40|feed|rw-s|ember|"}));

  auto tables = scanner.extractMmapInfoByTable();
  ASSERT_EQ(tables.size(), 2U);
  EXPECT_EQ(tables.at("/some/table").size(), 2U);
  EXPECT_EQ(tables.at("/t2").size(), 1U);
  EXPECT_FLOAT_EQ(tables.max_load_factor(), 1.0F);
}

TEST(ExtractionDeathTest, UnopenableProcIsFatal) {
  // Under an emulator that does not follow execve() (32-bit tests on a
  // kernel without 32-bit support) the death test can only fork.
  ::testing::FLAGS_gtest_death_test_style = std::getenv("HERON_TEST_EMULATOR") == nullptr ? "threadsafe" : "fast";
  std::ostringstream out;
  Heron::HeronClientScanner scanner(&out, HeronTest::tableRoot("/some/table"), "", "/nonexistent/proc");
  std::vector<Heron::MmapInfo> records;
  EXPECT_DEATH(scanner.extractMmapInfo(records), "Couldn't open /proc");
  EXPECT_DEATH(scanner.extractMmapInfoByTable(), "Couldn't open /proc");
}

TEST(ExtractionRealProcTest, FindsOwnReadOnlyMappingOfATableFile) {
  HeronTest::TempDir dir;
  HeronTest::writeFile(dir.path() + "/ember", std::string(64, '\0'));
  int fd = ::open((dir.path() + "/ember").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  void* address = ::mmap(nullptr, 64, PROT_READ, MAP_SHARED, fd, 0);
  ::close(fd);
  ASSERT_NE(address, MAP_FAILED);
  std::ostringstream out;
  Heron::HeronClientScanner scanner(&out, HeronTest::tableRoot(dir.path()), "");
  std::vector<Heron::MmapInfo> records;
  scanner.extractMmapInfo(records);
  ::munmap(address, 64);
  std::vector<std::string> texts;
  for (const auto& record : records) {
    texts.push_back(record.toTraceString());
  }
  EXPECT_EQ(texts, (std::vector<std::string>{std::to_string(::getpid()) + "|" + ownExeName() + "|r--s|ember|"}));
}

}  // namespace

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
  // The records of one process's mappings of this table.
  std::vector<Heron::MmapInfo> byProcess(const std::string& pid) {
    std::vector<Heron::MmapInfo> records;
    scanner.extractMmapInfo(maps(pid), records);
    return records;
  }
  // What extractMmapInfo() traces, with `mask`, over one process's maps;
  // its records in `records`.
  std::string tracedByProcess(const std::string& pid, std::uint64_t mask, std::vector<Heron::MmapInfo>& records) {
    HeronTest::TraceMask traced(mask);
    testing::internal::CaptureStderr();
    scanner.extractMmapInfo(maps(pid), records);
    return testing::internal::GetCapturedStderr();
  }
  // Neither form finds a table file among the process's mappings.
  void expectNoTableFiles(const std::string& pid) {
    EXPECT_TRUE(byProcess(pid).empty());
    EXPECT_TRUE(byTable(pid).empty());
  }
  // One process's mappings of every table, by table directory.
  Heron::HeronClientScanner::TableToInfoMap byTable(const std::string& pid) {
    Heron::HeronClientScanner::TableToInfoMap tables;
    scanner.extractMmapInfoByTable(maps(pid), tables);
    return tables;
  }
};

TEST_F(ExtractionTest, ByProcessKeepsEveryLineOfTheOwnTableInLineOrder) {
  proc.addProcess("4711",
                  mapsLine("r--s", "/some/table/relay.1") + mapsLine("r--s", "/some/table/relay.1") +
                      mapsLine("rw-s", "/some/table/ember"),
                  "/usr/bin/server");
  std::vector<Heron::MmapInfo> records = byProcess("4711");
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
  Heron::HeronClientScanner::TableToInfoMap tables = byTable("4711");
  ASSERT_EQ(tables.size(), 1U);
  const auto& records = tables.at("/some/table");
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].heronFileType, "relay.1");
  EXPECT_EQ(records[1].heronFileType, "relay.1");
  EXPECT_EQ(records[2].heronFileType, "ember");
}

TEST_F(ExtractionTest, OtherTableIsIgnoredByProcessAndKeyedByTable) {
  proc.addProcess("12", mapsLine("r--s", "/other/table/relay.1"), "/usr/bin/view");
  std::vector<Heron::MmapInfo> records = byProcess("12");
  EXPECT_TRUE(records.empty());
  Heron::HeronClientScanner::TableToInfoMap tables = byTable("12");
  ASSERT_EQ(tables.count("/other/table"), 1U);
  EXPECT_EQ(tables.at("/other/table").front().toTraceString(), "12|view|r--s|relay.1|");
}

TEST_F(ExtractionTest, DeletedMappingStillMatches) {
  proc.addProcess("12", mapsLine("r--s", "/some/table/relay.1 (deleted)"), "/usr/bin/view");
  std::vector<Heron::MmapInfo> records = byProcess("12");
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].heronFileType, "relay.1");
  Heron::HeronClientScanner::TableToInfoMap tables = byTable("12");
  EXPECT_EQ(tables.count("/some/table"), 1U);
}

TEST_F(ExtractionTest, PathWithoutSlashIsIgnoredByBothForms) {
  proc.addProcess("12", mapsLine("rw-p", "[heap]") + mapsLine("rw-p", "[stack]") + mapsLine("r--s", "ember"),
                  "/usr/bin/view");
  expectNoTableFiles("12");
}

TEST_F(ExtractionTest, SimilarNamesAreNotHeronFiles) {
  proc.addProcess("12",
                  mapsLine("r--s", "/some/table/relay.10") + mapsLine("r--s", "/some/table/relay.2") +
                      mapsLine("r--s", "/some/table/Ember") + mapsLine("r--s", "/some/table/quarry"),
                  "/usr/bin/view");
  expectNoTableFiles("12");
}

TEST_F(ExtractionTest, DirectoryWithOnlyOneHeronFileIsStillAKey) {
  proc.addProcess("12", mapsLine("r--s", "/x/ember"), "/usr/bin/view");
  Heron::HeronClientScanner::TableToInfoMap tables = byTable("12");
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
  std::vector<Heron::MmapInfo> records;
  const std::string traces = tracedByProcess("12", 0x221, records);
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
  std::vector<Heron::MmapInfo> records;
  const std::string traces = tracedByProcess("12", 0x200, records);
  EXPECT_NE(traces.find("mmapRegion: /some/table/ember"), std::string::npos) << traces;
  EXPECT_NE(traces.find("heronFileType: ember"), std::string::npos) << traces;
  EXPECT_NE(traces.find("Added: 12|view|r--s|ember|"), std::string::npos) << traces;
  // Locations are the code's own: the per-line traces come from the shared
  // per-process extraction.
  EXPECT_NE(traces.find("HeronClientScanner::extractProcess (HeronClientScanner.cpp:"), std::string::npos) << traces;
}

TEST_F(ExtractionTest, UnreadableExeLinkContributesNothing) {
  proc.addProcess("12", mapsLine("r--s", "/some/table/relay.1"), "");
  std::vector<Heron::MmapInfo> records;
  const std::string traces = tracedByProcess("12", 0x20, records);
  EXPECT_TRUE(records.empty());
  EXPECT_NE(traces.find("file " + proc.root() + "/12/exe no longer exists"), std::string::npos) << traces;
  Heron::HeronClientScanner::TableToInfoMap tables = byTable("12");
  EXPECT_TRUE(tables.empty());
}

TEST_F(ExtractionTest, VanishedMapsFileIsSkippedWithTrace) {
  proc.addProcess("12", "", "/usr/bin/view");
  ::unlink(maps("12").c_str());
  std::vector<Heron::MmapInfo> records;
  const std::string traces = tracedByProcess("12", 0x20, records);
  EXPECT_TRUE(records.empty());
  EXPECT_NE(traces.find("file " + maps("12") + " no longer exists"), std::string::npos) << traces;
}

TEST_F(ExtractionTest, LastLineWithoutNewlineIsRead) {
  std::string text = mapsLine("r--s", "/some/table/relay.1");
  text.pop_back();
  proc.addProcess("12", text, "/usr/bin/view");
  std::vector<Heron::MmapInfo> records = byProcess("12");
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

// Filler lines of the shape most maps lines have: libraries, anonymous
// regions, files whose names contain the heron names without being them.
std::string fillerLines(std::size_t count) {
  static const char* const paths[] = {"/usr/lib/x86_64-linux-gnu/libremember.so.6",
                                      "",
                                      "/var/cache/relay.10",
                                      "/home/u/embers/relay.1.bak",
                                      "[heap]",
                                      "/srv/ember/data"};
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += mapsLine(i % 3 == 0 ? "r-xp" : "rw-p", paths[i % 6]);
  }
  return text;
}

std::vector<std::string> texts(const std::vector<Heron::MmapInfo>& records) {
  std::vector<std::string> out;
  for (const auto& record : records) {
    out.push_back(record.toTraceString());
  }
  return out;
}

std::vector<std::string> texts(const Heron::HeronClientScanner::TableToInfoMap& tables) {
  std::vector<std::string> out;
  for (const auto& entry : tables) {
    for (const auto& record : entry.second) {
      out.push_back(entry.first + ":" + record.toTraceString());
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

TEST_F(ExtractionTest, LinesAcrossReadChunksAreReadWhole) {
  // About 160 KB: heron lines fall on both sides of the 64 KiB boundaries.
  std::string text;
  std::vector<std::string> expected;
  for (int block = 0; block < 40; ++block) {
    text += fillerLines(50);
    text += mapsLine(block % 2 == 0 ? "r--s" : "rw-s", block % 3 == 0 ? "/some/table/ember" : "/some/table/relay.1");
    expected.push_back(std::string("12|view|") + (block % 2 == 0 ? "r--s" : "rw-s") + "|" +
                       (block % 3 == 0 ? "ember" : "relay.1") + "|");
  }
  ASSERT_GT(text.size(), 2U * 65536U);
  proc.addProcess("12", text, "/usr/bin/view");
  std::vector<Heron::MmapInfo> records = byProcess("12");
  EXPECT_EQ(texts(records), expected);
  Heron::HeronClientScanner::TableToInfoMap tables = byTable("12");
  ASSERT_EQ(tables.size(), 1U);
  EXPECT_EQ(tables.at("/some/table").size(), expected.size());
}

TEST_F(ExtractionTest, LineLongerThanTheReadBufferIsReadWhole) {
  const std::string directory = "/" + std::string(150000, 'd');
  proc.addProcess("12", fillerLines(3) + mapsLine("r--s", directory + "/relay.1") + fillerLines(3), "/usr/bin/view");
  Heron::HeronClientScanner::TableToInfoMap tables = byTable("12");
  ASSERT_EQ(tables.size(), 1U);
  EXPECT_EQ(tables.count(directory), 1U);
}

TEST_F(ExtractionTest, UntracedAndTracedWalksFindTheSameRecords) {
  std::string last = mapsLine("r--s", "/t2/relay.1");
  last.pop_back();  // a last line without a newline
  proc.addProcess("12", fillerLines(20) + mapsLine("r--s", "/some/table/relay.1") + "\n" + fillerLines(5) + last,
                  "/usr/bin/view");
  proc.addProcess("40", mapsLine("rw-s", "/some/table/ember") + mapsLine("rw-s", "/some/table/relay.1 (deleted)"),
                  "/usr/bin/feed");
  proc.addProcess("41", mapsLine("rw-s", "/some/table/ember"), "");  // no exe: contributes nothing
  proc.addProcess("42", fillerLines(30), "");
  proc.addProcess("43", fillerLines(30) + mapsLine("r--s", "/some/table/relay.1"), "/opt/bin/reader (deleted)");
  proc.addProcess("44", "", "/usr/bin/empty");
  proc.addPlainFile("cpuinfo");

  std::vector<Heron::MmapInfo> untraced;
  scanner.extractMmapInfo(untraced);
  const auto untracedTables = scanner.extractMmapInfoByTable();
  std::vector<Heron::MmapInfo> traced;
  Heron::HeronClientScanner::TableToInfoMap tracedTables;
  {
    HeronTest::TraceMask mask((1U << 5) | (1U << 9));
    testing::internal::CaptureStderr();
    scanner.extractMmapInfo(traced);
    tracedTables = scanner.extractMmapInfoByTable();
    const std::string traces = testing::internal::GetCapturedStderr();
    EXPECT_NE(traces.find("mmapRegion: /usr/lib/x86_64-linux-gnu/libremember.so.6"), std::string::npos);
  }
  auto sorted = [](std::vector<std::string> list) {
    std::sort(list.begin(), list.end());
    return list;
  };
  EXPECT_EQ(sorted(texts(untraced)), sorted(texts(traced)));
  EXPECT_EQ(sorted(texts(untraced)),
            (std::vector<std::string>{"12|view|r--s|relay.1|", "40|feed|rw-s|ember|", "40|feed|rw-s|relay.1|",
                                      "43|reader (deleted)|r--s|relay.1|"}));
  EXPECT_EQ(texts(untracedTables), texts(tracedTables));
  EXPECT_EQ(texts(untracedTables).size(), 5U);
  EXPECT_EQ(untracedTables.at("/t2").front().toTraceString(), "12|view|r--s|relay.1|");
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

// Maps-line reading: tokens, file types, the process-directory cursor and the
// record's text form.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "unit/client/FakeProc.h"

namespace {

using HeronTest::FakeProc;

class MapsLineTest : public ::testing::Test {
 protected:
  std::ostringstream out;
  Heron::HeronClientScanner scanner{&out, HeronTest::tableRoot("/some/table"), "table"};
};

TEST_F(MapsLineTest, PidTextIsTokenTwoOfMapsPathSplitOnSlash) {
  EXPECT_EQ(scanner.getToken("/proc/4711/maps", 2, "/"), "4711");
}

TEST_F(MapsLineTest, RunsOfDelimitersCountAsOne) { EXPECT_EQ(scanner.getToken("a  b", 2, " "), "b"); }

TEST_F(MapsLineTest, TokenPastTheEndIsEmpty) { EXPECT_EQ(scanner.getToken("a b", 3, " "), ""); }

TEST_F(MapsLineTest, FirstTokenOfEmptyTextIsEmpty) { EXPECT_EQ(scanner.getToken("", 1, " "), ""); }

TEST_F(MapsLineTest, IndexZeroUsesUpEveryTokenAndGivesEmpty) { EXPECT_EQ(scanner.getToken("a b c", 0, " "), ""); }

TEST_F(MapsLineTest, LeadingAndTrailingDelimitersGiveNoToken) {
  EXPECT_EQ(scanner.getToken("  a b  ", 1, " "), "a");
  EXPECT_EQ(scanner.getToken("  a b  ", 2, " "), "b");
  EXPECT_EQ(scanner.getToken("  a b  ", 3, " "), "");
  EXPECT_EQ(scanner.getToken("   ", 1, " "), "");
}

TEST_F(MapsLineTest, AnonymousMappingHasNoPathnameToken) {
  EXPECT_EQ(scanner.getToken("7ffd5c1e0000-7ffd5c201000 rw-p 00000000 00:00 0", 6, " "), "");
}

TEST_F(MapsLineTest, PathnameAndPermissionsOfAMapsLine) {
  const std::string line = "f7a1c000-f7a5c000 rw-s 00000000 fd:01 1234567   /some/table/relay.1";
  EXPECT_EQ(scanner.getToken(line, 6, " "), "/some/table/relay.1");
  EXPECT_EQ(scanner.getToken(line, 2, " "), "rw-s");
}

TEST_F(MapsLineTest, PathnameWithBlankYieldsItsPartBeforeTheBlank) {
  const std::string line = "f7a1c000-f7a5c000 r--s 00000000 fd:01 1234567   /some/my table/relay.1";
  EXPECT_EQ(scanner.getToken(line, 6, " "), "/some/my");
}

TEST_F(MapsLineTest, DeletedMarkerIsNotPartOfThePathnameToken) {
  const std::string line = "f7a1c000-f7a5c000 r--s 00000000 fd:01 1234567   /some/table/relay.1 (deleted)";
  EXPECT_EQ(scanner.getToken(line, 6, " "), "/some/table/relay.1");
}

TEST_F(MapsLineTest, TabIsNotASeparator) { EXPECT_EQ(scanner.getToken("a\tb c", 1, " "), "a\tb"); }

TEST_F(MapsLineTest, EmbeddedNulHidesTheRest) {
  const std::string text("a b\0c d", 7);
  EXPECT_EQ(scanner.getToken(text, 2, " "), "b");
  EXPECT_EQ(scanner.getToken(text, 3, " "), "");
}

TEST_F(MapsLineTest, LongTextIsTokenizedWhole) {
  const std::string longWord(5000, 'x');
  const std::string text = "a " + longWord + " c";
  EXPECT_EQ(scanner.getToken(text, 2, " "), longWord);
  EXPECT_EQ(scanner.getToken(text, 3, " "), "c");
}

TEST_F(MapsLineTest, InputTextIsLeftUnchanged) {
  const std::string text = "a b c";
  scanner.getToken(text, 2, " ");
  EXPECT_EQ(text, "a b c");
}

TEST_F(MapsLineTest, EveryDelimiterCharacterSeparates) { EXPECT_EQ(scanner.getToken("a/b c", 3, "/ "), "c"); }

TEST_F(MapsLineTest, FileTypesOfTheTwoHeronFiles) {
  EXPECT_EQ(scanner.getFileType("relay.1"), 0);
  EXPECT_EQ(scanner.getFileType("ember"), 1);
  EXPECT_STREQ(Heron::HeronClientScanner::heronFileTypes[0], "relay.1");
  EXPECT_STREQ(Heron::HeronClientScanner::heronFileTypes[1], "ember");
}

TEST_F(MapsLineTest, FileTypeIsCaseSensitive) { EXPECT_EQ(scanner.getFileType("Ember"), -1); }

TEST_F(MapsLineTest, FileTypeWithTrailingBlankIsNotHeron) { EXPECT_EQ(scanner.getFileType("relay.1 "), -1); }

TEST_F(MapsLineTest, EmptyFileNameIsNotHeron) { EXPECT_EQ(scanner.getFileType(""), -1); }

TEST_F(MapsLineTest, FileTypeComparesTheWholeBareName) {
  EXPECT_EQ(scanner.getFileType("relay.10"), -1);
  EXPECT_EQ(scanner.getFileType("/x/relay.1"), -1);
  EXPECT_EQ(scanner.getFileType("relay.2"), -1);
}

TEST_F(MapsLineTest, ReadNextMmapReturnsEntriesWithMapsFilesThenFalse) {
  FakeProc proc;
  proc.addProcess("1", "", "/usr/bin/init");
  proc.addPlainFile("cpuinfo");
  proc.addProcess("self", "", "/usr/bin/heron");
  proc.addDirWithoutMaps("sys");

  Beacon::DirNode directory(HeronTest::scannerHandler(), proc.root());
  ASSERT_TRUE(directory.isOpen());
  std::vector<std::string> found;
  std::string mapsPath;
  while (scanner.readNextMmap(directory, mapsPath)) {
    found.push_back(mapsPath);
  }
  // Directory order is the file system's; both entries come out once.
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, (std::vector<std::string>{proc.root() + "/1/maps", proc.root() + "/self/maps"}));
  EXPECT_FALSE(scanner.readNextMmap(directory, mapsPath));
}

TEST_F(MapsLineTest, ReadNextMmapOnRealProcFindsOwnProcess) {
  Beacon::DirNode directory(HeronTest::scannerHandler(), "/proc");
  ASSERT_TRUE(directory.isOpen());
  const std::string own = "/proc/" + std::to_string(::getpid()) + "/maps";
  bool seen = false;
  std::string mapsPath;
  while (scanner.readNextMmap(directory, mapsPath)) {
    seen = seen || mapsPath == own;
    EXPECT_EQ(mapsPath.compare(mapsPath.size() - 5, 5, "/maps"), 0) << mapsPath;
  }
  EXPECT_TRUE(seen);
}

TEST(MmapInfoTest, TextFormHasFieldsInOrderWithTrailingBar) {
  Heron::MmapInfo info(12, "x", "r--s", "ember");
  EXPECT_EQ(info.toTraceString(), "12|x|r--s|ember|");
}

TEST(MmapInfoTest, NullFileTypeIsRejected) { EXPECT_THROW(Heron::MmapInfo(1, "x", "r--s", nullptr), std::logic_error); }

TEST(MmapInfoTest, CopiesOwnTheirStrings) {
  Heron::MmapInfo info(4711, "server", "rw-s", Heron::HeronClientScanner::heronFileTypes[0]);
  Heron::MmapInfo copy = info;
  info.procName = "other";
  EXPECT_EQ(copy.toTraceString(), "4711|server|rw-s|relay.1|");
}

}  // namespace

// The queue reader's header copies, its header text and the snapshot
// scan's report. Expected texts are written out in full from the
// documented layout.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <regex>
#include <sstream>

#include "readers/RelayHelperScanner.h"
#include "unit/relay/RelayReaderFixture.h"

using RelayTest::beforeTiming;
using RelayTest::fileBytes;
using RelayTest::Header;
using RelayTest::kTomb;
using RelayTest::Notification;
using RelayTest::primaryHeader;
using RelayTest::Reader;
using RelayTest::RelayReaderTest;
using RelayTest::secondaryHeader;
using RelayTest::slot;
using RelayTest::standardPrimary;
using RelayTest::standardSecondary;
using RelayTest::Table;
using RelayTest::timing;
using RelayTest::timingZero;
using RelayTest::validHeader;
using RelayTest::withCurrentTable;
using RelayTest::writeQueue;

// --- header copies and header text ---------------------------------------

TEST_F(RelayReaderTest, HeaderCopiesEveryField) {
  writeStandardQueue();
  Reader& reader = attached();
  Header first = reader.header(Table::PRIMARY);
  EXPECT_EQ(std::memcmp(&first, fileBytes(primaryHeader(), {}).data(), 84), 0);
  EXPECT_EQ(first.epoch[1], 1U);
  EXPECT_EQ(first.tableVersion, 0x1fU);
  Header second = reader.header(Table::SECONDARY);
  EXPECT_EQ(second.notifications.value, 2U);
  EXPECT_EQ(second.currentPos, 2U);
}

TEST_F(RelayReaderTest, HeaderBeforeInitializeIsZero) {
  Reader reader(RelayTest::handler(), root, false);
  Header none = reader.header(Table::PRIMARY);
  EXPECT_EQ(none.magic, 0U);
}

TEST_F(RelayReaderTest, FormatIndividualRelayHeaderWritesFiveLines) {
  writeStandardQueue();
  Reader& reader = attached();
  std::ostringstream out;
  reader.formatIndividualRelayHeader(reader.header(Table::PRIMARY), out);
  EXPECT_EQ(out.str(), RelayTest::individualHeader(SharedMem::EmberId{4711, 2}, "3 (v3)", 1));
}

TEST_F(RelayReaderTest, FormatIndividualRelayHeaderOnAHexZeroFilledStream) {
  // As the statistics block calls it: hexadecimal and fill '0' in force.
  writeStandardQueue();
  Reader& reader = attached();
  std::ostringstream out;
  out << std::hex << std::setfill('0');
  reader.formatIndividualRelayHeader(reader.header(Table::SECONDARY), out);
  EXPECT_EQ(out.str(), RelayTest::individualHeader(SharedMem::EmberId{4711, 2}, "2 (v1)", 2));
  // Switched back to decimal after the magic.
  out.str("");
  out << 26;
  EXPECT_EQ(out.str(), "26");
}

TEST_F(RelayReaderTest, FormatIndividualRelayHeaderDecodesAStrangeMagic) {
  Reader reader(RelayTest::handler(), root, false);
  Header header = validHeader(0);
  header.magic = 0x00000000004e5248ULL;
  header.version = 12;
  header.ember = SharedMem::EmberId{65535, 65535};
  header.notifications = Mem::VersionedRef<unsigned>{4294967295U, 4294967295U};
  header.currentPos = 4294967295U;
  std::ostringstream out;
  reader.formatIndividualRelayHeader(header, out);
  EXPECT_EQ(out.str(),
            "\n\t\tMagic: 0x4e5248 (\"HRN.....\")\n"
            "\t\tVersion: 12\n"
            "\t\tEmber: 65535.65535 (pid: 65535 instanceId: 65535)\n"
            "\t\tNotifications: 4294967295 (v4294967295)\n"
            "\t\tCurrent position: 4294967295\n");
}

// --- scan and printQueue -------------------------------------------------

// The report of a scan, before its timing line, for queue files written by
// hand: the full view (both tables whole) or the active view (the live part
// of the active table).
struct ScanCase {
  const char* name;
  std::vector<char> primary;
  std::vector<char> secondary;
  bool activeOnly;
  std::string report;
};

std::ostream& operator<<(std::ostream& out, const ScanCase& scan) { return out << scan.name; }

std::vector<ScanCase> scanCases() {
  Header fivePositions = primaryHeader();
  fivePositions.notifications.value = 5;
  fivePositions.currentPos = 3;
  Header emptyFirst = validHeader(0);
  emptyFirst.epoch[1] = 7;
  return {
      {"FullViewPrintsBothTablesWhole", standardPrimary(), standardSecondary(), false,
       RelayTest::queueHeading("Primary", "active", "3 (v3)", 1, 5, 6, 2) +
           "pos: 0           |  seq: 5           offset: 0x00300004 (3:4)           size: 64\n"
           "pos: 1           |  seq: 2           offset: 0x00100000 (1:0)           size: 8\n"
           "pos: 2           |  seq: 0           offset: 0x00000000 (0:0)           size: 0\n"
           "\n" +
           RelayTest::queueHeading("Secondary", "backup", "2 (v1)", 2, 3, 5, 1) +
           "pos: 0           |  seq: 3           offset: 0x00200007 (2:7)           size: 100\n"
           "pos: 1           |  seq: 4           offset: 0xffffffff (tombstoned)    size: 16\n"
           "\n"},
      {"ActiveOnlyPrintsTheLivePartOfTheActiveTable", standardPrimary(), standardSecondary(), true,
       RelayTest::queueHeading("Primary", "active", "3 (v3)", 1, 5, 6, 2) +
           "pos: 0           |  seq: 5           offset: 0x00300004 (3:4)           size: 64\n"
           "\n"},
      {"ActiveOnlySkipsTombstonesBelowCurrentPos",
       fileBytes(fivePositions, {slot(10, Quarry::Offset::encode(1, 1), 1), slot(11, kTomb, 2),
                                 slot(12, Quarry::Offset::encode(1, 3), 3), slot(13, Quarry::Offset::encode(1, 4), 4)}),
       fileBytes(secondaryHeader(), {}), true,
       RelayTest::queueHeading("Primary", "active", "5 (v3)", 3, 5, 6, 2) +
           "pos: 0           |  seq: 10          offset: 0x00100001 (1:1)           size: 1\n"
           "pos: 2           |  seq: 12          offset: 0x00100003 (1:3)           size: 3\n"
           "\n"},
      {"ActiveOnlyWithCurrentTableOneShowsOnlyTheSecondary",
       fileBytes(withCurrentTable(primaryHeader(), 1), {slot(5, 1, 1)}), standardSecondary(), true,
       RelayTest::queueHeading("Secondary", "active", "2 (v1)", 2, 3, 5, 1) +
           "pos: 0           |  seq: 3           offset: 0x00200007 (2:7)           size: 100\n"
           "\n"},
      {"CurrentTableTwoCollectsNeitherTableWhenActiveOnly",
       fileBytes(withCurrentTable(primaryHeader(), 2), {slot(5, 1, 1)}), fileBytes(secondaryHeader(), {slot(3, 1, 1)}),
       true, ""},
      {"CapacityZeroPrintsTwoHeadersAndNoPositions", fileBytes(emptyFirst, {}), fileBytes(validHeader(0), {}), false,
       RelayTest::queueHeading("Primary", "active", "0 (v1)", 0, 0, 0, 0) + "\n" +
           RelayTest::queueHeading("Secondary", "backup", "0 (v1)", 0, 0, 0, 7) + "\n"},
  };
}

class RelayReaderScanTest : public RelayReaderTest, public testing::WithParamInterface<ScanCase> {};

TEST_P(RelayReaderScanTest, ReportIsTheDocumentedText) {
  ASSERT_TRUE(writeQueue(dir, GetParam().primary, GetParam().secondary));
  const std::string report = scan(attached(), GetParam().activeOnly);
  EXPECT_EQ(beforeTiming(report), GetParam().report);
  EXPECT_TRUE(std::regex_match(timing(report), timingZero())) << timing(report);
}

INSTANTIATE_TEST_SUITE_P(RelayScan, RelayReaderScanTest, testing::ValuesIn(scanCases()),
                         [](const testing::TestParamInfo<ScanCase>& info) { return std::string(info.param.name); });

TEST_F(RelayReaderTest, FullViewWithCurrentTableOneMarksThePrimaryBackup) {
  const std::string report = fullViewWithCurrentTable(1);
  EXPECT_EQ(report.rfind("Primary relay queue (backup)\n", 0), 0U) << report;
  EXPECT_NE(report.find("\nSecondary relay queue (active)\n"), std::string::npos) << report;
}

TEST_F(RelayReaderTest, CurrentTableTwoFullViewShowsBothAsBackup) {
  const std::string report = fullViewWithCurrentTable(2);
  EXPECT_EQ(report.rfind("Primary relay queue (backup)\n", 0), 0U) << report;
  EXPECT_NE(report.find("\nSecondary relay queue (backup)\n"), std::string::npos) << report;
  EXPECT_EQ(std::count(report.begin(), report.end(), '|'), 5);
}

TEST_F(RelayReaderTest, PositionSevenIsPaddedWithNineBlanks) {
  Header first = validHeader(8);
  first.currentPos = 8;
  std::vector<Notification> slots;
  for (std::uint32_t i = 0; i < 8; ++i) {
    slots.push_back(slot(100 + i, Quarry::Offset::encode(1, i), i));
  }
  ASSERT_TRUE(writeQueue(dir, fileBytes(first, slots), fileBytes(validHeader(0), {})));
  const std::string report = scan(attached(), true);
  EXPECT_NE(report.find("\npos: 7         "
                        "  |  "
                        "seq: 107         offset: 0x00100007 (1:7)           size: 7\n"),
            std::string::npos)
      << report;
}

TEST_F(RelayReaderTest, TimingLineComesLastWithALineEnd) {
  writeStandardQueue();
  const std::string report = scan(attached(), false);
  std::string tail = timing(report);
  EXPECT_EQ(report.size() - tail.size(), beforeTiming(report).size());
  EXPECT_TRUE(std::regex_match(tail, timingZero())) << tail;
}

TEST_F(RelayReaderTest, ScanLeavesTheCallersStreamStateAlone) {
  writeStandardQueue();
  Reader& reader = attached();
  std::ostringstream out;
  out << std::hex;
  reader.scan(out, true);
  EXPECT_NE(out.str().find("\tcurrentPos:1\n"), std::string::npos);
  EXPECT_TRUE(out.good());
  out << 255;
  EXPECT_EQ(out.str().substr(out.str().size() - 2), "ff");
}

TEST_F(RelayReaderTest, TakeSnapshotCopiesWholeCapacities) {
  writeStandardQueue();
  Reader& reader = attached();
  std::vector<Notification> snapshot[2];
  EXPECT_EQ(reader.takeSnapshot(snapshot, false), 0U);
  ASSERT_EQ(snapshot[0].size(), 3U);
  ASSERT_EQ(snapshot[1].size(), 2U);
  EXPECT_EQ(snapshot[1][1].offset, kTomb);
  EXPECT_EQ(reader.takeSnapshot(snapshot, true), 0U);
  EXPECT_EQ(snapshot[0].size(), 3U);
  EXPECT_EQ(snapshot[1].size(), 0U);
}

TEST_F(RelayReaderTest, HelperScannerIsTheLibraryReader) {
  writeStandardQueue();
  Heron::RelayHelperScanner reader(RelayTest::handler(), root, false);
  ASSERT_TRUE(reader.initialize());
  std::ostringstream out;
  reader.scan(out, true);
  EXPECT_EQ(out.str().rfind("Primary relay queue (active)\n", 0), 0U);
}

// The queue reader on files its own writer wrote: switches, tombstones and
// a report larger than the reader's reserved room.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "unit/relay/RelayReaderFixture.h"

using RelayTest::beforeTiming;
using RelayTest::Header;
using RelayTest::Reader;
using RelayTest::RelayReaderTest;
using RelayTest::Table;
using RelayTest::timing;
using RelayTest::timingZero;

// --- on files written by the writer --------------------------------------

namespace {

// Appends `count` entries through the fixture's writer: entry i is unit i
// of region 1, 10 * i bytes.
void appendTens(Relay::RelayWriter& writer, std::uint32_t count) {
  for (std::uint32_t i = 1; i <= count; ++i) {
    writer.append(Quarry::Offset::encode(1, i), 10 * i);
  }
}

}  // namespace

TEST_F(RelayReaderTest, WriterFilesFullViewAfterSwitchAndTombstone) {
  ASSERT_TRUE(createWriter(2, SharedMem::EmberId{4711, 2}));
  appendTens(writer(), 3);  // the third switches to the secondary
  ASSERT_TRUE(writer().tombstone(std::uint64_t{2}));
  const std::string report = scan(attached(), false);
  EXPECT_EQ(beforeTiming(report),
            RelayTest::queueHeading("Primary", "backup", "2 (v1)", 2, 1, 3, 0) +
                "pos: 0           |  seq: 1           offset: 0x00100001 (1:1)           size: 10\n"
                "pos: 1           |  seq: 2           offset: 0xffffffff (tombstoned)    size: 20\n"
                "\n" +
                RelayTest::queueHeading("Secondary", "active", "2 (v1)", 1, 3, 4, 1) +
                "pos: 0           |  seq: 3           offset: 0x00100003 (1:3)           size: 30\n"
                "pos: 1           |  seq: 0           offset: 0x00000000 (0:0)           size: 0\n"
                "\n");
  EXPECT_TRUE(std::regex_match(timing(report), timingZero())) << timing(report);
}

TEST_F(RelayReaderTest, WriterFilesActiveOnlyAfterSwitch) {
  ASSERT_TRUE(createWriter(2, SharedMem::EmberId{4711, 2}));
  appendTens(writer(), 4);
  ASSERT_TRUE(writer().tombstone(std::uint64_t{3}));
  const std::string report = scan(attached(), true);
  EXPECT_EQ(beforeTiming(report),
            RelayTest::queueHeading("Secondary", "active", "2 (v1)", 2, 3, 5, 1) +
                "pos: 1           |  seq: 4           offset: 0x00100004 (1:4)           size: 40\n"
                "\n");
}

TEST_F(RelayReaderTest, WriterFilesHeaderCopyShowsTheSwitch) {
  ASSERT_TRUE(createWriter(1, SharedMem::EmberId{4711, 2}));
  for (int i = 0; i < 32; ++i) {
    writer().append(Quarry::Offset::encode(1, 1), 1);
  }
  Reader& reader = attached();
  Header first = reader.header(Table::PRIMARY);
  EXPECT_EQ(first.tableVersion, 31U);  // 0x1f
  EXPECT_EQ(first.currentTable, 1U);
  EXPECT_EQ(first.latestWriterSequence, 32U);
  EXPECT_EQ(first.epoch[0], 15U);
  EXPECT_EQ(first.epoch[1], 16U);
}

TEST_F(RelayReaderTest, LargeReportIsWholeAndInOrder) {
  // More lines than the reserved-room threshold: the report is built in
  // its own buffer and written in one piece.
  ASSERT_TRUE(createWriter(6000, SharedMem::EmberId{1, 0}));
  for (std::uint32_t i = 0; i < 9000; ++i) {
    writer().append(Quarry::Offset::encode(1, i), i);
  }
  const std::string report = scan(attached(), false);
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 7 + 6000 + 1 + 7 + 6000 + 1 + 2);
  EXPECT_EQ(report.rfind("Primary relay queue (backup)\n", 0), 0U);
  EXPECT_NE(report.find("\npos: 5999        |  seq: 6000        offset: 0x0010176f (1:5999)        size: 5999\n\n"
                        "Secondary relay queue (active)\n"),
            std::string::npos);
  EXPECT_NE(report.find("\npos: 2999        |  seq: 9000        offset: 0x00102327 (1:8999)        size: 8999\n"
                        "pos: 3000        |  seq: 0           offset: 0x00000000 (0:0)           size: 0\n"),
            std::string::npos);
  EXPECT_TRUE(std::regex_match(timing(report), timingZero())) << timing(report);
}

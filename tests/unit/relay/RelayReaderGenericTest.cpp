// The read-only queue reader: attach and validate, follow the writer's
// capacity, header copies and header text, and the snapshot scan's report.
// Expected texts are written out in full from the documented layout.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <regex>
#include <sstream>

#include "Beacon/Util.h"
#include "Quarry/Offset.h"
#include "Relay/RelayReaderGeneric.h"
#include "Relay/RelayWriter.h"
#include "readers/RelayHelperScanner.h"
#include "unit/relay/RelayBrokenQueues.h"
#include "unit/relay/RelayTestFiles.h"

namespace {

using RelayTest::beforeTiming;
using RelayTest::fileBytes;
using RelayTest::Header;
using RelayTest::Notification;
using RelayTest::slot;
using RelayTest::Table;
using RelayTest::timing;
using RelayTest::validHeader;
using RelayTest::writeQueue;
using Reader = Relay::RelayReaderGeneric<Relay::RelaySlot>;

constexpr std::uint32_t kTomb = Quarry::Offset::TOMBSTONED;

// The timing line: "Relay scanned in <seconds> seconds", a line break,
// "Restarted <n> times", and the end of line of the report.
// The seconds come from the wall clock, which may step back during a scan.
const std::regex kTimingZero("Relay scanned in -?[0-9]+(\\.[0-9]+)?(e[-+][0-9]+)? seconds\nRestarted 0 times\n");

// Primary: capacity 3 (notifications version 3), currentPos 1, holding
// sequences 5..; the switch word says table 0, version 0x1f.
Header primaryHeader() {
  Header header = validHeader(3);
  header.notifications.version = 3;
  header.ember = SharedMem::EmberId{4711, 2};
  header.epoch[0] = 2;
  header.epoch[1] = 1;
  header.connectedReaders = 4;
  header.tableVersion = 0x1f;
  header.currentTable = 0;
  header.corralStart = Tock::Sequence{5};
  header.corralEnd = Tock::Sequence{6};
  header.latestWriterSequence = 5;
  header.currentPos = 1;
  return header;
}
// Secondary: capacity 2, currentPos 2, sequences 3 and 4 (4 released).
Header secondaryHeader() {
  Header header = validHeader(2);
  header.ember = SharedMem::EmberId{4711, 2};
  header.corralStart = Tock::Sequence{3};
  header.corralEnd = Tock::Sequence{5};
  header.currentPos = 2;
  return header;
}
Header withCurrentTable(Header header, std::uint32_t table) {
  header.currentTable = table;
  return header;
}
std::vector<char> standardPrimary() {
  return fileBytes(primaryHeader(), {slot(5, Quarry::Offset::encode(3, 4), 64),
                                     slot(2, Quarry::Offset::encode(1, 0), 8), slot(0, 0, 0)});
}
std::vector<char> standardSecondary() {
  return fileBytes(secondaryHeader(), {slot(3, Quarry::Offset::encode(2, 7), 100), slot(4, kTomb, 16)});
}

class RelayReaderTest : public ::testing::Test {
 protected:
  void writeStandardQueue() { ASSERT_TRUE(writeQueue(dir, standardPrimary(), standardSecondary())); }
  // A reader of the table, initialised.
  Reader& attached() {
    reader_ = std::make_unique<Reader>(RelayTest::handler(), root, false);
    EXPECT_TRUE(reader_->initialize());
    return *reader_;
  }
  std::string scan(Reader& reader, bool activeOnly) {
    std::ostringstream out;
    reader.scan(out, activeOnly);
    return out.str();
  }

  RelayTest::TempDir temp;
  std::string dir = temp.table("t");
  Mem::RootPath root{dir};
  std::unique_ptr<Reader> reader_;
};

}  // namespace

// --- initialize ----------------------------------------------------------

// A queue whose capacity needs more than 4 GiB - 1 bytes is valid where the
// file holds it. The files are sparse: only their headers take memory.
TEST_F(RelayReaderTest, InitializeAcceptsAQueueLargerThanFourGibibytes) {
  if (sizeof(std::size_t) < 8) {
    GTEST_SKIP() << "a 32-bit reader cannot map a queue of more than 4 GiB";
  }
  const unsigned capacity = 400000000U;  // 88 + 12 * capacity = 4800000088 bytes
  const std::uint64_t size = 88 + 12 * static_cast<std::uint64_t>(capacity);
  const std::vector<char> header = fileBytes(validHeader(capacity), {}, 88);
  ASSERT_TRUE(writeQueue(dir, header, header));
  if (::truncate((dir + "/relay.1").c_str(), static_cast<off_t>(size)) != 0 ||
      ::truncate((dir + "/relay.2").c_str(), static_cast<off_t>(size)) != 0) {
    GTEST_SKIP() << "no room for a sparse file of " << size << " bytes here";
  }
  Reader reader(RelayTest::handler(), root, false);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(reader.initialize());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(reader.header(Reader::PRIMARY).notifications.value, capacity);
}

TEST_F(RelayReaderTest, InitializeSucceedsOnValidFiles) {
  writeStandardQueue();
  Reader reader(RelayTest::handler(), root, false);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(reader.initialize());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// Every broken file of the shared table fails initialize(), with the
// documented message or without a word.
class RelayReaderBrokenQueueTest : public testing::TestWithParam<RelayTest::BrokenQueue> {
 protected:
  // A queue of capacity 2, then the parameter's damage.
  void SetUp() override {
    std::string error;
    {
      Relay::RelayWriter writer(RelayTest::handler(), root);
      ASSERT_TRUE(writer.create(2, SharedMem::EmberId{4711, 2}, error)) << error;
    }
    ASSERT_TRUE(GetParam().apply(dir));
  }
  RelayTest::TempDir temp;
  std::string dir = temp.table("t");
  Mem::RootPath root{dir};
};

TEST_P(RelayReaderBrokenQueueTest, InitializeFails) {
  Reader reader(RelayTest::handler(), root, false);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(reader.initialize());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().expectedMessage(dir));
}

// The same refusal kept by the reader for its caller: nothing on standard
// error, the message (without its line end) in lastError().
TEST_P(RelayReaderBrokenQueueTest, InitializeToldToKeepItsErrorsSaysNothing) {
  Reader reader(RelayTest::handler(), root, false);
  reader.reportErrorsTo(nullptr);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(reader.initialize());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  std::string expected = GetParam().expectedMessage(dir);
  if (!expected.empty()) {
    expected.pop_back();
  }
  EXPECT_EQ(reader.lastError(), expected);
}

INSTANTIATE_TEST_SUITE_P(RelayBrokenQueues, RelayReaderBrokenQueueTest, testing::ValuesIn(RelayTest::kBrokenQueues),
                         RelayTest::BrokenQueueName());

TEST_F(RelayReaderTest, InitializeMapsTheAnnouncedCapacity) {
  writeStandardQueue();
  Reader& reader = attached();
  EXPECT_EQ(reader.mappedSize(Table::PRIMARY), 124U);
  EXPECT_EQ(reader.mappedSize(Table::SECONDARY), 112U);
  EXPECT_EQ(reader.cachedNotifications(Table::PRIMARY).version, 3U);
  EXPECT_EQ(reader.cachedNotifications(Table::PRIMARY).value, 3U);
  EXPECT_EQ(reader.cachedNotifications(Table::SECONDARY).version, 1U);
  EXPECT_EQ(reader.cachedNotifications(Table::SECONDARY).value, 2U);
  EXPECT_EQ(reader.snapshotPosition(Table::PRIMARY), 1U);
  EXPECT_EQ(reader.snapshotPosition(Table::SECONDARY), 2U);
}

TEST_F(RelayReaderTest, InitializeTakesTheSwitchWord) {
  Header first = primaryHeader();
  first.tableVersion = 0x1a;
  first.currentTable = 1;
  ASSERT_TRUE(writeQueue(dir, fileBytes(first, {}), fileBytes(secondaryHeader(), {})));
  Reader& reader = attached();
  EXPECT_EQ(reader.switchSnapshot(), 0x000000010000001aULL);
}

// --- resizeRelay ---------------------------------------------------------

TEST_F(RelayReaderTest, WriterVersionAllOnesIsNeverRemapped) {
  Header first = primaryHeader();
  first.notifications.version = 0xFFFFFFFFU;
  ASSERT_TRUE(writeQueue(dir, fileBytes(first, {}), fileBytes(secondaryHeader(), {})));
  Reader& reader = attached();
  EXPECT_EQ(reader.mappedSize(Table::PRIMARY), 88U);
  EXPECT_EQ(reader.cachedNotifications(Table::PRIMARY).value, 0U);
  EXPECT_EQ(reader.mappedSize(Table::SECONDARY), 112U);
  // Nothing of the primary is copied: the cached capacity is 0.
  std::string report = scan(reader, false);
  EXPECT_NE(report.find("Primary relay queue (active)\n\tnotifications:0 (v4294967295)\n\tcurrentPos:1\n"
                        "\tcorralStart:5\n\tcorralEnd:6\n\tepoch:2\n\n\nSecondary"),
            std::string::npos)
      << report;
}

TEST_F(RelayReaderTest, SameVersionKeepsTheMappingWhenCapacityDiffers) {
  writeStandardQueue();
  Reader& reader = attached();
  // Capacity 1 under the same version: not looked at.
  ASSERT_TRUE(RelayTest::pokeWord(dir + "/relay.1", 76, 1));
  reader.resizeRelay(Table::PRIMARY);
  EXPECT_EQ(reader.mappedSize(Table::PRIMARY), 124U);
  EXPECT_EQ(reader.cachedNotifications(Table::PRIMARY).value, 3U);
  std::string report = scan(reader, false);
  EXPECT_EQ(std::count(report.begin(), report.end(), '|'), 5);
}

TEST_F(RelayReaderTest, NewVersionFollowsTheWritersGrowth) {
  std::string error;
  Relay::RelayWriter writer(RelayTest::handler(), root);
  ASSERT_TRUE(writer.create(2, SharedMem::EmberId{1, 0}, error)) << error;
  Reader& reader = attached();
  EXPECT_EQ(reader.mappedSize(Table::PRIMARY), 112U);
  ASSERT_TRUE(writer.grow(50, error)) << error;
  reader.resizeRelay(Table::PRIMARY);
  reader.resizeRelay(Table::SECONDARY);
  EXPECT_EQ(reader.mappedSize(Table::PRIMARY), 688U);
  EXPECT_EQ(reader.mappedSize(Table::SECONDARY), 688U);
  EXPECT_EQ(reader.cachedNotifications(Table::PRIMARY).version, 2U);
  EXPECT_EQ(reader.cachedNotifications(Table::PRIMARY).value, 50U);
}

TEST_F(RelayReaderTest, ScanFollowsGrowthBeforeCopying) {
  std::string error;
  Relay::RelayWriter writer(RelayTest::handler(), root);
  ASSERT_TRUE(writer.create(1, SharedMem::EmberId{1, 0}, error)) << error;
  Reader& reader = attached();
  ASSERT_TRUE(writer.grow(4, error)) << error;
  writer.append(Quarry::Offset::encode(1, 1), 1);
  std::string report = scan(reader, false);
  EXPECT_NE(report.find("\tnotifications:4 (v2)\n"), std::string::npos) << report;
  EXPECT_NE(report.find("pos: 3 "), std::string::npos) << report;
}

using RelayReaderDeathTest = RelayReaderTest;

// A shared word or a file changed under an initialised reader so that what
// the writer announces no longer fits the file: a fatal assertion with its
// message, never a fault.
struct FatalCase {
  enum Action { ResizePrimary, Scan, SecondaryHeader };
  struct Change {
    const char* file;
    bool truncate;   // else poke
    std::size_t at;  // truncate: the new size
    std::uint32_t value;
  };

  const char* name;
  std::vector<Change> changes;
  Action action;
  const char* message;  // a regular expression
};

std::ostream& operator<<(std::ostream& out, const FatalCase& fatal) { return out << fatal.name; }

const FatalCase kFatalCases[] = {
    {"CapacityBeyondTheFile",
     {{"relay.1", false, 76, 10}, {"relay.1", false, 72, 4}},
     FatalCase::ResizePrimary,
     "requesting to map .*/t/relay.1 10 relay notifications. Requested file resize to 208 but real file size is 124"},
    {"ScanOfAGrownAnnouncementBeyondTheFile",
     {{"relay.2", false, 76, 100}, {"relay.2", false, 72, 2}},
     FatalCase::Scan,
     "requesting to map .*/t/relay.2 100 relay notifications. Requested file resize to 1288 but real file size is "
     "112"},
    {"ScanOfAShrunkFile",
     {{"relay.1", true, 90, 0}},
     FatalCase::Scan,
     "/t/relay.1 shrank to 90 bytes, below its 124-byte mapping of 3 relay notifications"},
    {"HeaderCopyOfAShrunkFile",
     {{"relay.2", true, 0, 0}},
     FatalCase::SecondaryHeader,
     "/t/relay.2 shrank to 0 bytes, below its [0-9]+-byte mapping"},
};

class RelayReaderFatalDeathTest : public RelayReaderTest, public testing::WithParamInterface<FatalCase> {};

TEST_P(RelayReaderFatalDeathTest, IsAFatalAssertion) {
  writeStandardQueue();
  Reader& reader = attached();
  for (const FatalCase::Change& change : GetParam().changes) {
    const std::string path = dir + "/" + change.file;
    ASSERT_TRUE(change.truncate ? RelayTest::truncateFile(path, change.at)
                                : RelayTest::pokeWord(path, change.at, change.value));
  }
  std::ostringstream out;
  switch (GetParam().action) {
    case FatalCase::ResizePrimary:
      EXPECT_DEATH(reader.resizeRelay(Table::PRIMARY), GetParam().message);
      break;
    case FatalCase::Scan:
      EXPECT_DEATH(reader.scan(out, false), GetParam().message);
      break;
    case FatalCase::SecondaryHeader:
      EXPECT_DEATH(reader.header(Table::SECONDARY), GetParam().message);
      break;
  }
}

INSTANTIATE_TEST_SUITE_P(RelayFatal, RelayReaderFatalDeathTest, testing::ValuesIn(kFatalCases),
                         [](const testing::TestParamInfo<FatalCase>& info) { return std::string(info.param.name); });

TEST_F(RelayReaderDeathTest, FailedRemapThrowsMemoryResourceException) {
  if (std::getenv("HERON_TEST_EMULATOR") != nullptr) {
    GTEST_SKIP() << "an emulator does not hold its guest to the address-space limit";
  }
  // A sparse file of 1.2 GB that the address-space limit cannot map.
  Header big = primaryHeader();
  big.notifications.value = 100000000U;
  ASSERT_TRUE(writeQueue(dir, fileBytes(big, {}, 88), fileBytes(secondaryHeader(), {})));
  ASSERT_TRUE(RelayTest::truncateFile(dir + "/relay.1", 1200000088U));
  Reader reader(RelayTest::handler(), root, false);
  EXPECT_EXIT(
      {
        std::ifstream statm("/proc/self/statm");
        unsigned long long pages = 0;
        statm >> pages;
        struct rlimit limit {};
        limit.rlim_cur = limit.rlim_max = static_cast<rlim_t>(pages * 4096ULL + (256ULL << 20));
        if (::setrlimit(RLIMIT_AS, &limit) != 0) {
          std::_Exit(2);
        }
        try {
          reader.initialize();
        } catch (const Beacon::MemoryResourceException& e) {
          std::fprintf(stderr, "caught: %s\n", e.what());
          std::_Exit(3);
        }
        std::_Exit(0);
      },
      ::testing::ExitedWithCode(3), "caught: failed to resize .*/t/relay.1 to size 1200000088: Cannot allocate memory");
}

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
  EXPECT_EQ(out.str(),
            "\n\t\tMagic: 0x59414c45524e5248 (\"HRNRELAY\")\n"
            "\t\tVersion: 1\n"
            "\t\tEmber: 4711.2 (pid: 4711 instanceId: 2)\n"
            "\t\tNotifications: 3 (v3)\n"
            "\t\tCurrent position: 1\n");
}

TEST_F(RelayReaderTest, FormatIndividualRelayHeaderOnAHexZeroFilledStream) {
  // As the statistics block calls it: hexadecimal and fill '0' in force.
  writeStandardQueue();
  Reader& reader = attached();
  std::ostringstream out;
  out << std::hex << std::setfill('0');
  reader.formatIndividualRelayHeader(reader.header(Table::SECONDARY), out);
  EXPECT_EQ(out.str(),
            "\n\t\tMagic: 0x59414c45524e5248 (\"HRNRELAY\")\n"
            "\t\tVersion: 1\n"
            "\t\tEmber: 4711.2 (pid: 4711 instanceId: 2)\n"
            "\t\tNotifications: 2 (v1)\n"
            "\t\tCurrent position: 2\n");
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
       "Primary relay queue (active)\n"
       "\tnotifications:3 (v3)\n"
       "\tcurrentPos:1\n"
       "\tcorralStart:5\n"
       "\tcorralEnd:6\n"
       "\tepoch:2\n"
       "\n"
       "pos: 0           |  seq: 5           offset: 0x00300004 (3:4)           size: 64\n"
       "pos: 1           |  seq: 2           offset: 0x00100000 (1:0)           size: 8\n"
       "pos: 2           |  seq: 0           offset: 0x00000000 (0:0)           size: 0\n"
       "\n"
       "Secondary relay queue (backup)\n"
       "\tnotifications:2 (v1)\n"
       "\tcurrentPos:2\n"
       "\tcorralStart:3\n"
       "\tcorralEnd:5\n"
       "\tepoch:1\n"
       "\n"
       "pos: 0           |  seq: 3           offset: 0x00200007 (2:7)           size: 100\n"
       "pos: 1           |  seq: 4           offset: 0xffffffff (tombstoned)    size: 16\n"
       "\n"},
      {"ActiveOnlyPrintsTheLivePartOfTheActiveTable", standardPrimary(), standardSecondary(), true,
       "Primary relay queue (active)\n"
       "\tnotifications:3 (v3)\n"
       "\tcurrentPos:1\n"
       "\tcorralStart:5\n"
       "\tcorralEnd:6\n"
       "\tepoch:2\n"
       "\n"
       "pos: 0           |  seq: 5           offset: 0x00300004 (3:4)           size: 64\n"
       "\n"},
      {"ActiveOnlySkipsTombstonesBelowCurrentPos",
       fileBytes(fivePositions, {slot(10, Quarry::Offset::encode(1, 1), 1), slot(11, kTomb, 2),
                                 slot(12, Quarry::Offset::encode(1, 3), 3), slot(13, Quarry::Offset::encode(1, 4), 4)}),
       fileBytes(secondaryHeader(), {}), true,
       "Primary relay queue (active)\n"
       "\tnotifications:5 (v3)\n"
       "\tcurrentPos:3\n"
       "\tcorralStart:5\n"
       "\tcorralEnd:6\n"
       "\tepoch:2\n"
       "\n"
       "pos: 0           |  seq: 10          offset: 0x00100001 (1:1)           size: 1\n"
       "pos: 2           |  seq: 12          offset: 0x00100003 (1:3)           size: 3\n"
       "\n"},
      {"ActiveOnlyWithCurrentTableOneShowsOnlyTheSecondary",
       fileBytes(withCurrentTable(primaryHeader(), 1), {slot(5, 1, 1)}), standardSecondary(), true,
       "Secondary relay queue (active)\n"
       "\tnotifications:2 (v1)\n"
       "\tcurrentPos:2\n"
       "\tcorralStart:3\n"
       "\tcorralEnd:5\n"
       "\tepoch:1\n"
       "\n"
       "pos: 0           |  seq: 3           offset: 0x00200007 (2:7)           size: 100\n"
       "\n"},
      {"CurrentTableTwoCollectsNeitherTableWhenActiveOnly",
       fileBytes(withCurrentTable(primaryHeader(), 2), {slot(5, 1, 1)}), fileBytes(secondaryHeader(), {slot(3, 1, 1)}),
       true, ""},
      {"CapacityZeroPrintsTwoHeadersAndNoPositions", fileBytes(emptyFirst, {}), fileBytes(validHeader(0), {}), false,
       "Primary relay queue (active)\n"
       "\tnotifications:0 (v1)\n"
       "\tcurrentPos:0\n"
       "\tcorralStart:0\n"
       "\tcorralEnd:0\n"
       "\tepoch:0\n"
       "\n"
       "\n"
       "Secondary relay queue (backup)\n"
       "\tnotifications:0 (v1)\n"
       "\tcurrentPos:0\n"
       "\tcorralStart:0\n"
       "\tcorralEnd:0\n"
       "\tepoch:7\n"
       "\n"
       "\n"},
  };
}

class RelayReaderScanTest : public RelayReaderTest, public testing::WithParamInterface<ScanCase> {};

TEST_P(RelayReaderScanTest, ReportIsTheDocumentedText) {
  ASSERT_TRUE(writeQueue(dir, GetParam().primary, GetParam().secondary));
  const std::string report = scan(attached(), GetParam().activeOnly);
  EXPECT_EQ(beforeTiming(report), GetParam().report);
  EXPECT_TRUE(std::regex_match(timing(report), kTimingZero)) << timing(report);
}

INSTANTIATE_TEST_SUITE_P(RelayScan, RelayReaderScanTest, testing::ValuesIn(scanCases()),
                         [](const testing::TestParamInfo<ScanCase>& info) { return std::string(info.param.name); });

TEST_F(RelayReaderTest, FullViewWithCurrentTableOneMarksThePrimaryBackup) {
  Header first = primaryHeader();
  first.currentTable = 1;
  ASSERT_TRUE(writeQueue(dir, fileBytes(first, {}), fileBytes(secondaryHeader(), {})));
  Reader& reader = attached();
  std::string report = scan(reader, false);
  EXPECT_EQ(report.rfind("Primary relay queue (backup)\n", 0), 0U) << report;
  EXPECT_NE(report.find("\nSecondary relay queue (active)\n"), std::string::npos) << report;
}

TEST_F(RelayReaderTest, CurrentTableTwoFullViewShowsBothAsBackup) {
  Header first = primaryHeader();
  first.currentTable = 2;
  ASSERT_TRUE(writeQueue(dir, fileBytes(first, {}), fileBytes(secondaryHeader(), {})));
  Reader& reader = attached();
  std::string report = scan(reader, false);
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
  Reader& reader = attached();
  std::string report = scan(reader, true);
  EXPECT_NE(report.find("\npos: 7         "
                        "  |  "
                        "seq: 107         offset: 0x00100007 (1:7)           size: 7\n"),
            std::string::npos)
      << report;
}

TEST_F(RelayReaderTest, TimingLineComesLastWithALineEnd) {
  writeStandardQueue();
  Reader& reader = attached();
  std::string report = scan(reader, false);
  std::string tail = timing(report);
  EXPECT_EQ(report.size() - tail.size(), beforeTiming(report).size());
  EXPECT_TRUE(std::regex_match(tail, kTimingZero)) << tail;
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

// --- on files written by the writer --------------------------------------

TEST_F(RelayReaderTest, WriterFilesFullViewAfterSwitchAndTombstone) {
  std::string error;
  Relay::RelayWriter writer(RelayTest::handler(), root);
  ASSERT_TRUE(writer.create(2, SharedMem::EmberId{4711, 2}, error)) << error;
  writer.append(Quarry::Offset::encode(1, 1), 10);
  writer.append(Quarry::Offset::encode(1, 2), 20);
  writer.append(Quarry::Offset::encode(1, 3), 30);  // switches to the secondary
  ASSERT_TRUE(writer.tombstone(std::uint64_t{2}));
  Reader& reader = attached();
  std::string report = scan(reader, false);
  EXPECT_EQ(beforeTiming(report),
            "Primary relay queue (backup)\n"
            "\tnotifications:2 (v1)\n"
            "\tcurrentPos:2\n"
            "\tcorralStart:1\n"
            "\tcorralEnd:3\n"
            "\tepoch:0\n"
            "\n"
            "pos: 0           |  seq: 1           offset: 0x00100001 (1:1)           size: 10\n"
            "pos: 1           |  seq: 2           offset: 0xffffffff (tombstoned)    size: 20\n"
            "\n"
            "Secondary relay queue (active)\n"
            "\tnotifications:2 (v1)\n"
            "\tcurrentPos:1\n"
            "\tcorralStart:3\n"
            "\tcorralEnd:4\n"
            "\tepoch:1\n"
            "\n"
            "pos: 0           |  seq: 3           offset: 0x00100003 (1:3)           size: 30\n"
            "pos: 1           |  seq: 0           offset: 0x00000000 (0:0)           size: 0\n"
            "\n");
  EXPECT_TRUE(std::regex_match(timing(report), kTimingZero)) << timing(report);
}

TEST_F(RelayReaderTest, WriterFilesActiveOnlyAfterSwitch) {
  std::string error;
  Relay::RelayWriter writer(RelayTest::handler(), root);
  ASSERT_TRUE(writer.create(2, SharedMem::EmberId{4711, 2}, error)) << error;
  writer.append(Quarry::Offset::encode(1, 1), 10);
  writer.append(Quarry::Offset::encode(1, 2), 20);
  writer.append(Quarry::Offset::encode(1, 3), 30);
  writer.append(Quarry::Offset::encode(1, 4), 40);
  ASSERT_TRUE(writer.tombstone(std::uint64_t{3}));
  Reader& reader = attached();
  std::string report = scan(reader, true);
  EXPECT_EQ(beforeTiming(report),
            "Secondary relay queue (active)\n"
            "\tnotifications:2 (v1)\n"
            "\tcurrentPos:2\n"
            "\tcorralStart:3\n"
            "\tcorralEnd:5\n"
            "\tepoch:1\n"
            "\n"
            "pos: 1           |  seq: 4           offset: 0x00100004 (1:4)           size: 40\n"
            "\n");
}

TEST_F(RelayReaderTest, WriterFilesHeaderCopyShowsTheSwitch) {
  std::string error;
  Relay::RelayWriter writer(RelayTest::handler(), root);
  ASSERT_TRUE(writer.create(1, SharedMem::EmberId{4711, 2}, error)) << error;
  for (int i = 0; i < 32; ++i) {
    writer.append(Quarry::Offset::encode(1, 1), 1);
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
  std::string error;
  Relay::RelayWriter writer(RelayTest::handler(), root);
  ASSERT_TRUE(writer.create(6000, SharedMem::EmberId{1, 0}, error)) << error;
  for (std::uint32_t i = 0; i < 9000; ++i) {
    writer.append(Quarry::Offset::encode(1, i), i);
  }
  Reader& reader = attached();
  std::string report = scan(reader, false);
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 7 + 6000 + 1 + 7 + 6000 + 1 + 2);
  EXPECT_EQ(report.rfind("Primary relay queue (backup)\n", 0), 0U);
  EXPECT_NE(report.find("\npos: 5999        |  seq: 6000        offset: 0x0010176f (1:5999)        size: 5999\n\n"
                        "Secondary relay queue (active)\n"),
            std::string::npos);
  EXPECT_NE(report.find("\npos: 2999        |  seq: 9000        offset: 0x00102327 (1:8999)        size: 8999\n"
                        "pos: 3000        |  seq: 0           offset: 0x00000000 (0:0)           size: 0\n"),
            std::string::npos);
  EXPECT_TRUE(std::regex_match(timing(report), kTimingZero)) << timing(report);
}

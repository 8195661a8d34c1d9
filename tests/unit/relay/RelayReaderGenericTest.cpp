// The read-only queue reader: attach and validate, follow the writer's
// capacity, and what it does when the files change under it.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "Beacon/Util.h"
#include "support/Mappings.h"
#include "unit/relay/RelayBrokenQueues.h"
#include "unit/relay/RelayReaderFixture.h"

using RelayTest::fileBytes;
using RelayTest::Header;
using RelayTest::primaryHeader;
using RelayTest::Reader;
using RelayTest::RelayReaderTest;
using RelayTest::secondaryHeader;
using RelayTest::Table;
using RelayTest::validHeader;
using RelayTest::writeQueue;

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

// A reader of the headers only refuses the same files with the same words.
TEST_P(RelayReaderBrokenQueueTest, InitializeOfTheHeadersOnlyFailsAlike) {
  Reader reader(RelayTest::handler(), root, false, Mem::MapExtent::Header);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(reader.initialize());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().expectedMessage(dir));
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
  writeHeaders(first);
  Reader& reader = attached();
  EXPECT_EQ(reader.switchSnapshot(), 0x000000010000001aULL);
}

// --- resizeRelay ---------------------------------------------------------

TEST_F(RelayReaderTest, WriterVersionAllOnesIsNeverRemapped) {
  Header first = primaryHeader();
  first.notifications.version = 0xFFFFFFFFU;
  writeHeaders(first);
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
  ASSERT_TRUE(createWriter(2, SharedMem::EmberId{1, 0}));
  Reader& reader = attached();
  EXPECT_EQ(reader.mappedSize(Table::PRIMARY), 112U);
  ASSERT_TRUE(writer().grow(50, error)) << error;
  reader.resizeRelay(Table::PRIMARY);
  reader.resizeRelay(Table::SECONDARY);
  EXPECT_EQ(reader.mappedSize(Table::PRIMARY), 688U);
  EXPECT_EQ(reader.mappedSize(Table::SECONDARY), 688U);
  EXPECT_EQ(reader.cachedNotifications(Table::PRIMARY).version, 2U);
  EXPECT_EQ(reader.cachedNotifications(Table::PRIMARY).value, 50U);
}

TEST_F(RelayReaderTest, ScanFollowsGrowthBeforeCopying) {
  std::string error;
  ASSERT_TRUE(createWriter(1, SharedMem::EmberId{1, 0}));
  Reader& reader = attached();
  ASSERT_TRUE(writer().grow(4, error)) << error;
  writer().append(Quarry::Offset::encode(1, 1), 1);
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

// --- the headers only ----------------------------------------------------

// Whatever the capacity, a reader told to map the headers only maps each
// file's 88-byte header: one page, of the 30 that 10,000 slots take.
TEST_F(RelayReaderTest, HeaderExtentMapsOnlyTheHeaders) {
  std::string error;
  ASSERT_TRUE(Relay::RelayWriter::createFiles(root, 10000, SharedMem::EmberId{4711, 2}, error)) << error;
  Reader reader(RelayTest::handler(), root, false, Mem::MapExtent::Header);
  ASSERT_TRUE(reader.initialize());
  EXPECT_EQ(reader.mappedSize(Table::PRIMARY), Table::kHeaderSize);
  EXPECT_EQ(reader.mappedSize(Table::SECONDARY), Table::kHeaderSize);
  const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  EXPECT_EQ(HeronTest::mappingLengths(dir + "/relay.1"), std::vector<std::size_t>{page});
  EXPECT_EQ(HeronTest::mappingLengths(dir + "/relay.2"), std::vector<std::size_t>{page});
  EXPECT_EQ(reader.header(Table::PRIMARY).notifications.value, 10000U);
}

// Both readers copy the same headers, word for word.
TEST_F(RelayReaderTest, HeaderExtentReadsTheHeadersAWholeMappingReads) {
  writeStandardQueue();
  Reader& whole = attached();
  Reader headers(RelayTest::handler(), root, false, Mem::MapExtent::Header);
  ASSERT_TRUE(headers.initialize());
  for (const Table::RelayTableId id : {Table::PRIMARY, Table::SECONDARY}) {
    const Header expected = whole.header(id);
    const Header got = headers.header(id);
    EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << id;
    EXPECT_EQ(headers.cachedNotifications(id).value, whole.cachedNotifications(id).value) << id;
    EXPECT_EQ(headers.snapshotPosition(id), whole.snapshotPosition(id)) << id;
  }
  EXPECT_EQ(headers.switchSnapshot(), whole.switchSnapshot());
}

// A writer's growth is read from the header and never mapped.
TEST_F(RelayReaderTest, HeaderExtentFollowsGrowthWithoutMappingIt) {
  ASSERT_TRUE(createWriter(2, SharedMem::EmberId{4711, 2}));
  Reader reader(RelayTest::handler(), root, false, Mem::MapExtent::Header);
  ASSERT_TRUE(reader.initialize());
  std::string error;
  ASSERT_TRUE(writer().grow(5000, error)) << error;
  reader.resizeRelay(Table::PRIMARY);
  EXPECT_EQ(reader.cachedNotifications(Table::PRIMARY).value, 5000U);
  EXPECT_EQ(reader.header(Table::PRIMARY).notifications.value, 5000U);
  EXPECT_EQ(reader.mappedSize(Table::PRIMARY), Table::kHeaderSize);
}

// The slots are not mapped: a copy of them is refused.
TEST_F(RelayReaderDeathTest, SlotsOfAHeaderExtentAreFatal) {
  writeStandardQueue();
  Reader reader(RelayTest::handler(), root, false, Mem::MapExtent::Header);
  ASSERT_TRUE(reader.initialize());
  std::vector<Table::Notification> snapshot[2];
  EXPECT_DEATH(reader.takeSnapshot(snapshot, false), "asked of a reader that maps the queue headers only");
}

// The queue writer: creation, append, switch, tombstone, grow, reopen. The
// files are checked byte by byte through pread, independently of the reader.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "Quarry/Offset.h"
#include "Relay/RelayWriter.h"
#include "unit/relay/RelayTestFiles.h"

namespace {

using Relay::RelayWriter;
using RelayTest::Header;
using RelayTest::Notification;
using RelayTest::Table;

Header readTableHeader(const std::string& path) {
  Header header{};
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0) << path;
  if (fd >= 0) {
    EXPECT_EQ(::pread(fd, &header, sizeof header, 0), static_cast<ssize_t>(sizeof header));
    ::close(fd);
  }
  return header;
}

Notification readSlot(const std::string& path, std::size_t index) {
  Notification slot{};
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    EXPECT_EQ(::pread(fd, &slot, sizeof slot, static_cast<off_t>(84 + 12 * index)), 12);
    ::close(fd);
  }
  return slot;
}

// What a switch of tables changes in a header: currentTable, tableVersion,
// the primary's and the secondary's epochs, and currentPos.
std::vector<std::uint64_t> switchFields(const Header& header) {
  return {header.currentTable, header.tableVersion, header.epoch[Table::PRIMARY], header.epoch[Table::SECONDARY],
          header.currentPos};
}

std::size_t fileSize(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<std::size_t>(st.st_size) : 0;
}

class RelayWriterTest : public ::testing::Test {
 protected:
  RelayTest::TempDir temp;
  std::string dir = temp.table("t");
  Mem::RootPath root{dir};
  std::string primary = dir + "/relay.1";
  std::string secondary = dir + "/relay.2";
  SharedMem::EmberId ember{4711, 2};

  // Creates the queue with `capacity` slots through writer_.
  ::testing::AssertionResult create(unsigned capacity) {
    writer_ = std::make_unique<RelayWriter>(RelayTest::handler(), root);
    std::string error;
    if (!writer_->create(capacity, ember, error)) {
      return ::testing::AssertionFailure() << error;
    }
    return ::testing::AssertionSuccess();
  }
  // Appends offsets 10, 11 and 12 of one byte each; the first's sequence.
  std::uint64_t appendThree() {
    const std::uint64_t first = writer_->append(10, 1);
    writer_->append(11, 1);
    writer_->append(12, 1);
    return first;
  }
  std::unique_ptr<RelayWriter> writer_;
};

}  // namespace

TEST_F(RelayWriterTest, CreateFilesMakesBothFilesAtTheirSize) {
  std::string error;
  ASSERT_TRUE(RelayWriter::createFiles(root, 5, ember, error)) << error;
  EXPECT_EQ(fileSize(primary), 88U + 60U);
  EXPECT_EQ(fileSize(secondary), 88U + 60U);
}

TEST_F(RelayWriterTest, CreateFilesWritesAValidEmptyHeader) {
  std::string error;
  ASSERT_TRUE(RelayWriter::createFiles(root, 5, ember, error)) << error;
  for (const std::string& path : {primary, secondary}) {
    Header header = readTableHeader(path);
    EXPECT_EQ(header.magic, Table::kMagic);
    EXPECT_EQ(header.version, 1U);
    EXPECT_EQ(header.ember.pid, 4711);
    EXPECT_EQ(header.ember.instanceId, 2);
    EXPECT_EQ(header.notifications.version, 1U);
    EXPECT_EQ(header.notifications.value, 5U);
    EXPECT_EQ(header.currentPos, 0U);
    EXPECT_EQ(header.tableVersion, 0U);
    EXPECT_EQ(header.currentTable, 0U);
    EXPECT_EQ(header.corralStart.value, 1U);
    EXPECT_EQ(header.corralEnd.value, 1U);
    EXPECT_EQ(header.latestWriterSequence, 0U);
    std::string why;
    EXPECT_TRUE(header.validate(RelayTest::handler(), static_cast<unsigned>(fileSize(path)), 0, why)) << why;
  }
}

TEST_F(RelayWriterTest, CreateFilesRefusesExistingQueue) {
  std::string error;
  ASSERT_TRUE(RelayWriter::createFiles(root, 5, ember, error)) << error;
  EXPECT_FALSE(RelayWriter::createFiles(root, 5, ember, error));
  EXPECT_NE(error.find("relay.1"), std::string::npos) << error;
}

// The writer reopens a queue that needs more than 4 GiB - 1 bytes, as the
// reader reads it. The files are sparse: only their headers take memory.
TEST_F(RelayWriterTest, OpenAcceptsAQueueLargerThanFourGibibytes) {
  if (sizeof(std::size_t) < 8) {
    GTEST_SKIP() << "a 32-bit writer cannot map a queue of more than 4 GiB";
  }
  const unsigned capacity = 400000000U;  // 88 + 12 * capacity = 4800000088 bytes
  const std::uint64_t size = 88 + 12 * static_cast<std::uint64_t>(capacity);
  const std::vector<char> header = RelayTest::fileBytes(RelayTest::validHeader(capacity), {}, 88);
  ASSERT_TRUE(RelayTest::writeQueue(dir, header, header));
  if (::truncate(primary.c_str(), static_cast<off_t>(size)) != 0 ||
      ::truncate(secondary.c_str(), static_cast<off_t>(size)) != 0) {
    GTEST_SKIP() << "no room for a sparse file of " << size << " bytes here";
  }
  RelayWriter writer(RelayTest::handler(), root);
  std::string error;
  EXPECT_TRUE(writer.open(error)) << error;
  EXPECT_EQ(writer.capacity(), capacity);
}

TEST_F(RelayWriterTest, CreateOpensTheWriter) {
  ASSERT_TRUE(create(4));
  RelayWriter& writer = *writer_;
  EXPECT_TRUE(writer.isOpen());
  EXPECT_EQ(writer.capacity(), 4U);
  EXPECT_EQ(writer.currentTable(), Table::PRIMARY);
  EXPECT_EQ(writer.position(), 0U);
  EXPECT_EQ(writer.latestSequence(), 0U);
}

TEST_F(RelayWriterTest, AppendWritesSlotAndPublishesPosition) {
  ASSERT_TRUE(create(4));
  RelayWriter& writer = *writer_;
  EXPECT_EQ(writer.append(Quarry::Offset::encode(3, 4), 64), 1U);
  EXPECT_EQ(writer.append(Quarry::Offset::encode(3, 5), 65), 2U);
  Notification first = readSlot(primary, 0);
  EXPECT_EQ(first.sequence, 1U);
  EXPECT_EQ(first.offset, Quarry::Offset::encode(3, 4));
  EXPECT_EQ(first.size, 64U);
  EXPECT_EQ(readSlot(primary, 1).sequence, 2U);
  Header header = readTableHeader(primary);
  EXPECT_EQ(header.currentPos, 2U);
  EXPECT_EQ(header.corralStart.value, 1U);
  EXPECT_EQ(header.corralEnd.value, 3U);
  EXPECT_EQ(header.latestWriterSequence, 2U);
  EXPECT_EQ(readTableHeader(secondary).currentPos, 0U);
}

TEST_F(RelayWriterTest, AppendSwitchesToTheOtherTableWhenFull) {
  ASSERT_TRUE(create(2));
  RelayWriter& writer = *writer_;
  writer.append(1, 1);
  writer.append(2, 2);
  EXPECT_EQ(writer.currentTable(), Table::PRIMARY);
  EXPECT_EQ(writer.append(3, 3), 3U);
  EXPECT_EQ(writer.currentTable(), Table::SECONDARY);
  // The full table keeps its contents: its currentPos stays 2.
  EXPECT_EQ(switchFields(readTableHeader(primary)), (std::vector<std::uint64_t>{1, 1, 0, 1, 2}));
  Header second = readTableHeader(secondary);
  EXPECT_EQ(second.currentPos, 1U);
  EXPECT_EQ(second.corralStart.value, 3U);
  EXPECT_EQ(second.corralEnd.value, 4U);
  EXPECT_EQ(readSlot(secondary, 0).sequence, 3U);
}

TEST_F(RelayWriterTest, SwitchingBackResetsThePrimary) {
  ASSERT_TRUE(create(1));
  RelayWriter& writer = *writer_;
  // The second goes to the secondary, the third back to the primary, reset.
  for (std::uint32_t i = 1; i <= 3; ++i) {
    writer.append(i, i);
  }
  const Header first = readTableHeader(primary);
  EXPECT_EQ(switchFields(first), (std::vector<std::uint64_t>{0, 2, 1, 1, 1}));
  EXPECT_EQ(first.corralStart.value, 3U);
  EXPECT_EQ(readSlot(primary, 0).sequence, 3U);
}

TEST_F(RelayWriterTest, SwitchTablesOnDemand) {
  ASSERT_TRUE(create(8));
  RelayWriter& writer = *writer_;
  writer.append(1, 1);
  writer.switchTables();
  EXPECT_EQ(writer.currentTable(), Table::SECONDARY);
  EXPECT_EQ(writer.tableVersion(), 1U);
  EXPECT_EQ(writer.append(2, 2), 2U);
  EXPECT_EQ(writer.position(Table::SECONDARY), 1U);
}

TEST_F(RelayWriterTest, TombstoneBySequenceInActiveTable) {
  ASSERT_TRUE(create(4));
  RelayWriter& writer = *writer_;
  writer.append(10, 1);
  std::uint64_t second = writer.append(11, 2);
  EXPECT_TRUE(writer.tombstone(second));
  EXPECT_EQ(readSlot(primary, 1).offset, Quarry::Offset::TOMBSTONED);
  EXPECT_EQ(readSlot(primary, 1).sequence, 2U);
  EXPECT_EQ(readSlot(primary, 0).offset, 10U);
}

TEST_F(RelayWriterTest, TombstoneBySequenceInBackupTable) {
  ASSERT_TRUE(create(2));
  const std::uint64_t first = appendThree();  // the third goes to the secondary
  EXPECT_TRUE(writer_->tombstone(first));
  EXPECT_EQ(readSlot(primary, 0).offset, Quarry::Offset::TOMBSTONED);
}

TEST_F(RelayWriterTest, TombstoneOfOverwrittenSequenceFails) {
  ASSERT_TRUE(create(1));
  const std::uint64_t first = appendThree();  // the third resets the primary
  RelayWriter& writer = *writer_;
  EXPECT_FALSE(writer.tombstone(first));
  EXPECT_FALSE(writer.tombstone(std::uint64_t{99}));
  EXPECT_FALSE(writer.tombstone(std::uint64_t{0}));
}

TEST_F(RelayWriterTest, TombstoneByPosition) {
  ASSERT_TRUE(create(3));
  RelayWriter& writer = *writer_;
  EXPECT_TRUE(writer.tombstone(Table::SECONDARY, 2));
  EXPECT_EQ(readSlot(secondary, 2).offset, Quarry::Offset::TOMBSTONED);
  EXPECT_FALSE(writer.tombstone(Table::SECONDARY, 3));
}

TEST_F(RelayWriterTest, GrowExtendsBothFilesAndBumpsTheVersion) {
  std::string error;
  ASSERT_TRUE(create(2));
  RelayWriter& writer = *writer_;
  writer.append(1, 1);
  ASSERT_TRUE(writer.grow(10, error)) << error;
  EXPECT_EQ(writer.capacity(), 10U);
  for (const std::string& path : {primary, secondary}) {
    EXPECT_EQ(fileSize(path), 88U + 120U);
    Header header = readTableHeader(path);
    EXPECT_EQ(header.notifications.version, 2U);
    EXPECT_EQ(header.notifications.value, 10U);
  }
  // Appends continue in the grown table without switching.
  writer.append(2, 2);
  writer.append(3, 3);
  EXPECT_EQ(writer.append(4, 4), 4U);
  EXPECT_EQ(writer.currentTable(), Table::PRIMARY);
  EXPECT_EQ(readSlot(primary, 3).sequence, 4U);
}

TEST_F(RelayWriterTest, GrowRefusesASmallerOrEqualCapacity) {
  std::string error;
  ASSERT_TRUE(create(4));
  RelayWriter& writer = *writer_;
  EXPECT_FALSE(writer.grow(4, error));
  EXPECT_EQ(error, "a capacity of 4 is not above the current 4");
  EXPECT_EQ(writer.capacity(), 4U);
}

TEST_F(RelayWriterTest, OpenContinuesAnExistingQueue) {
  std::string error;
  {
    RelayWriter writer(RelayTest::handler(), root);
    ASSERT_TRUE(writer.create(2, ember, error)) << error;
    writer.append(1, 1);
    writer.append(2, 2);
    writer.append(3, 3);
  }
  RelayWriter again(RelayTest::handler(), root);
  ASSERT_TRUE(again.open(error)) << error;
  EXPECT_EQ(again.currentTable(), Table::SECONDARY);
  EXPECT_EQ(again.latestSequence(), 3U);
  EXPECT_EQ(again.append(4, 4), 4U);
  EXPECT_EQ(readSlot(secondary, 1).sequence, 4U);
}

TEST_F(RelayWriterTest, OpenRejectsAnInvalidFile) {
  std::string error;
  ASSERT_TRUE(RelayWriter::createFiles(root, 2, ember, error)) << error;
  ASSERT_TRUE(RelayTest::pokeWord(secondary, 8, 7));
  RelayWriter writer(RelayTest::handler(), root);
  EXPECT_FALSE(writer.open(error));
  EXPECT_EQ(error, secondary + ": format version 7, expected 1 (newer by 6)");
  EXPECT_FALSE(writer.isOpen());
}

TEST_F(RelayWriterTest, OpenRejectsMissingFiles) {
  RelayWriter writer(RelayTest::handler(), root);
  std::string error;
  EXPECT_FALSE(writer.open(error));
  EXPECT_NE(error.find("relay.1"), std::string::npos) << error;
  EXPECT_EQ(writer.append(1, 1), 0U);
}

TEST_F(RelayWriterTest, CapacityZeroTakesNoAppends) {
  ASSERT_TRUE(create(0));
  RelayWriter& writer = *writer_;
  EXPECT_EQ(writer.append(1, 1), 0U);
  EXPECT_EQ(readTableHeader(primary).currentPos, 0U);
}

TEST_F(RelayWriterTest, SetConnectedReadersWritesThePrimary) {
  ASSERT_TRUE(create(1));
  RelayWriter& writer = *writer_;
  writer.setConnectedReaders(3);
  EXPECT_EQ(readTableHeader(primary).connectedReaders, 3U);
  EXPECT_EQ(readTableHeader(secondary).connectedReaders, 0U);
}

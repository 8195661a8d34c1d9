// The queue reader's tests: two queue files written by hand from the
// documented layout, and a fixture that attaches a reader (or a writer) to
// a fresh table directory.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Quarry/Offset.h"
#include "Relay/RelayReaderGeneric.h"
#include "Relay/RelayWriter.h"
#include "unit/relay/RelayTestFiles.h"

namespace RelayTest {

using Reader = Relay::RelayReaderGeneric<Relay::RelaySlot>;

constexpr std::uint32_t kTomb = Quarry::Offset::TOMBSTONED;

// Primary: capacity 3 (notifications version 3), currentPos 1, holding
// sequences 5..; the switch word says table 0, version 0x1f.
inline Header primaryHeader() {
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
inline Header secondaryHeader() {
  Header header = validHeader(2);
  header.ember = SharedMem::EmberId{4711, 2};
  header.corralStart = Tock::Sequence{3};
  header.corralEnd = Tock::Sequence{5};
  header.currentPos = 2;
  return header;
}
inline Header withCurrentTable(Header header, std::uint32_t table) {
  header.currentTable = table;
  return header;
}
inline std::vector<char> standardPrimary() {
  return fileBytes(primaryHeader(), {slot(5, Quarry::Offset::encode(3, 4), 64),
                                     slot(2, Quarry::Offset::encode(1, 0), 8), slot(0, 0, 0)});
}
inline std::vector<char> standardSecondary() {
  return fileBytes(secondaryHeader(), {slot(3, Quarry::Offset::encode(2, 7), 100), slot(4, kTomb, 16)});
}

class RelayReaderTest : public ::testing::Test {
 protected:
  void writeStandardQueue() { ASSERT_TRUE(writeQueue(dir, standardPrimary(), standardSecondary())); }
  // Writes relay.1 from `primary` and relay.2 from the standard secondary,
  // both without slots.
  void writeHeaders(const Header& primary) {
    ASSERT_TRUE(writeQueue(dir, fileBytes(primary, {}), fileBytes(secondaryHeader(), {})));
  }
  // The full view of the standard headers, without slots, when the switch
  // word names `table`.
  std::string fullViewWithCurrentTable(std::uint32_t table) {
    writeHeaders(withCurrentTable(primaryHeader(), table));
    return scan(attached(), false);
  }
  // A reader of the table, initialised.
  Reader& attached() {
    reader_ = std::make_unique<Reader>(handler(), root, false);
    EXPECT_TRUE(reader_->initialize());
    return *reader_;
  }
  // A writer that has created the table's queue; writer() is it.
  ::testing::AssertionResult createWriter(unsigned capacity, SharedMem::EmberId ember) {
    writer_ = std::make_unique<Relay::RelayWriter>(handler(), root);
    std::string error;
    if (!writer_->create(capacity, ember, error)) {
      return ::testing::AssertionFailure() << error;
    }
    return ::testing::AssertionSuccess();
  }
  Relay::RelayWriter& writer() { return *writer_; }
  static std::string scan(Reader& reader, bool activeOnly) {
    std::ostringstream out;
    reader.scan(out, activeOnly);
    return out.str();
  }

  TempDir temp;
  std::string dir = temp.table("t");
  Mem::RootPath root{dir};

 private:
  std::unique_ptr<Reader> reader_;
  std::unique_ptr<Relay::RelayWriter> writer_;
};

}  // namespace RelayTest

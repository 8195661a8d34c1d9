// The queue format: layout, file size, header validation, slot text.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "Beacon/Util.h"
#include "Quarry/Offset.h"
#include "unit/relay/RelayTestFiles.h"

using RelayTest::handler;
using RelayTest::Header;
using RelayTest::Notification;
using RelayTest::Table;
using RelayTest::validHeader;

TEST(RelayHeaderLayout, IsEightyEightBytesWithFieldsAtTheirOffsets) {
  EXPECT_EQ(sizeof(Header), 88U);
  EXPECT_EQ(offsetof(Header, epoch), 16U);
  EXPECT_EQ(offsetof(Header, tableVersion), 40U);
  EXPECT_EQ(offsetof(Header, notifications), 72U);
  EXPECT_EQ(offsetof(Header, currentPos), 80U);
  EXPECT_EQ(sizeof(Notification), 12U);
}

// The named words that the reader and the writer share sit where the format
// puts them.
TEST(RelayHeaderLayout, SharedWordNamesAreTheFormatsOffsets) {
  namespace Shared = Relay::Shared;
  EXPECT_EQ(Shared::kMagic, 0U);
  EXPECT_EQ(Shared::kVersion, 8U);
  EXPECT_EQ(Shared::epochAt(0), 16U);
  EXPECT_EQ(Shared::epochAt(1), 24U);
  EXPECT_EQ(Shared::kConnectedReaders, 32U);
  EXPECT_EQ(Shared::kSwitchWord, 40U);
  EXPECT_EQ(Shared::kCorralStart, 48U);
  EXPECT_EQ(Shared::kCorralEnd, 56U);
  EXPECT_EQ(Shared::kLatestSequence, 64U);
  EXPECT_EQ(Shared::kNotificationsWord, 72U);
  EXPECT_EQ(Shared::kCurrentPos, 80U);
  EXPECT_EQ(Shared::slotAt(0), 84U);
  EXPECT_EQ(Shared::slotAt(3), 84U + 36U);
  EXPECT_EQ(Shared::kSlotSequence, 0U);
  EXPECT_EQ(Shared::kSlotOffset, 4U);
  EXPECT_EQ(Shared::kSlotPayloadSize, 8U);
}

TEST(RelayHeaderLayout, MagicIsHrnrelayInFileOrder) {
  Header header = validHeader(0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&header), 8), "HRNRELAY");
}

TEST(RelayHeaderFileSize, IsHeaderPlusTwelveBytesPerSlot) {
  EXPECT_EQ(Header::fileSize(0), 88U);
  EXPECT_EQ(Header::fileSize(1), 100U);
  EXPECT_EQ(Header::fileSize(1000000), 12000088U);
}

TEST(RelayHeaderFileSize, LargestCapacityDoesNotWrap) {
  // 88 + 12 * (2^32 - 1) does not fit 32 bits: saturated there, exact in 64.
  if (sizeof(std::size_t) == 4) {
    EXPECT_EQ(Header::fileSize(0xFFFFFFFFU), static_cast<std::size_t>(-1));
  } else {
    EXPECT_EQ(static_cast<unsigned long long>(Header::fileSize(0xFFFFFFFFU)), 88ULL + 12ULL * 0xFFFFFFFFULL);
  }
}

TEST(RelayHeaderValidate, AcceptsExactFileSize) {
  Header header = validHeader(10);
  std::string error;
  EXPECT_TRUE(header.validate(handler(), 208, 0, error)) << error;
  EXPECT_TRUE(error.empty());
}

TEST(RelayHeaderValidate, AcceptsLargerFile) {
  Header header = validHeader(10);
  std::string error;
  EXPECT_TRUE(header.validate(handler(), 4096, 0, error)) << error;
}

// A header refused by validate(), with the one line it gives.
struct Rejection {
  const char* name;
  unsigned capacity;
  std::optional<std::uint64_t> magic;    // else the valid one
  std::optional<std::uint32_t> version;  // else the valid one
  std::size_t fileSize;
  const char* error;
};

std::ostream& operator<<(std::ostream& out, const Rejection& rejection) { return out << rejection.name; }

const Rejection kRejections[] = {
    {"RejectsWrongMagicNamingBoth", 1, Beacon::Util::encodeMagic("HRNOWNER"), std::nullopt, 100,
     "bad magic 0x52454e574f4e5248, expected 0x59414c45524e5248 (\"HRNRELAY\")"},
    {"RejectsNewerVersionSayingByHowMuch", 1, std::nullopt, 4, 100, "format version 4, expected 1 (newer by 3)"},
    {"RejectsOlderVersion", 1, std::nullopt, 0, 100, "format version 0, expected 1 (older by 1)"},
    {"RejectsCapacityBeyondFileSayingBytesShort", 10, std::nullopt, std::nullopt, 207,
     "capacity of 10 notifications needs 208 bytes but the file holds 207 (1 bytes short)"},
    {"RejectsHugeCapacityWithoutOverflow", 0xFFFFFFFFU, std::nullopt, std::nullopt, 0xFFFFFFFFU,
     "capacity of 4294967295 notifications needs 51539607628 bytes but the file holds 4294967295 "
     "(47244640333 bytes short)"},
    {"RejectsFileShorterThanHeader", 0, std::nullopt, std::nullopt, 80,
     "file holds 80 bytes, less than the 88-byte header (8 bytes short)"},
};

class RelayHeaderRejection : public testing::TestWithParam<Rejection> {};

TEST_P(RelayHeaderRejection, SaysWhy) {
  Header header = validHeader(GetParam().capacity);
  header.magic = GetParam().magic.value_or(header.magic);
  header.version = GetParam().version.value_or(header.version);
  std::string error;
  EXPECT_FALSE(header.validate(handler(), GetParam().fileSize, 0, error));
  EXPECT_EQ(error, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(RelayHeaderValidate, RelayHeaderRejection, testing::ValuesIn(kRejections),
                         [](const testing::TestParamInfo<Rejection>& info) { return std::string(info.param.name); });

TEST(RelayHeaderValidate, SecondArgumentIsTheLeastCapacity) {
  Header header = validHeader(4);
  std::string error;
  EXPECT_TRUE(header.validate(handler(), 136, 4, error));
  EXPECT_FALSE(header.validate(handler(), 136, 6, error));
  EXPECT_EQ(error, "capacity of 4 notifications is below the required 6 (2 short)");
}

TEST(RelayHeaderValidate, MagicIsCheckedBeforeVersionAndSize) {
  Header header = validHeader(100);
  header.magic = 0;
  header.version = 9;
  std::string error;
  EXPECT_FALSE(header.validate(handler(), 88, 0, error));
  EXPECT_EQ(error.rfind("bad magic 0x0, ", 0), 0U) << error;
}

TEST(RelayNotificationDump, LiveSlotShowsRegionAndUnit) {
  Notification slot{17, Quarry::Offset::encode(3, 4), 64};
  EXPECT_EQ(slot.dump(), "seq: 17          offset: 0x00300004 (3:4)           size: 64");
}

TEST(RelayNotificationDump, TombstonedSlotSaysSo) {
  Notification slot{4294967295U, Quarry::Offset::TOMBSTONED, 4294967295U};
  EXPECT_EQ(slot.dump(), "seq: 4294967295  offset: 0xffffffff (tombstoned)    size: 4294967295");
}

TEST(RelayNotificationDump, EmptySlotIsZeros) {
  Notification slot{0, 0, 0};
  EXPECT_EQ(slot.dump(), "seq: 0           offset: 0x00000000 (0:0)           size: 0");
}

TEST(RelayNotificationDump, WidestRegionAndUnitKeepColumns) {
  Notification slot{1234567890U, Quarry::Offset::encode(4095, 1048574), 1};
  EXPECT_EQ(slot.dump(), "seq: 1234567890  offset: 0xfffffffe (4095:1048574)  size: 1");
}

TEST(RelayNotificationDump, DumpToWritesTheSameText) {
  Notification slot{5, Quarry::Offset::encode(1, 2), 3};
  char buffer[Notification::kDumpMax];
  std::size_t length = slot.dumpTo(buffer);
  EXPECT_EQ(std::string(buffer, length), slot.dump());
  EXPECT_LE(length, Notification::kDumpMax);
}

// The notification queue's shared format: an 88-byte header and 12-byte
// slots; slot i starts at byte 84 + 12*i, so slot 0 overlaps the header's
// last 4 bytes (which hold nothing else).
//
// Writer protocol (readers rely on it): append = write the slot, then
// publish currentPos + 1 with a release store. When the active table is full
// the writer resets the other one, bumps its epoch in the primary header,
// then flips currentTable and bumps tableVersion in one 64-bit store at byte
// 40. To grow, it extends the file first, then stores {version + 1,
// capacity} in one 64-bit store at byte 72. Releasing an entry tombstones
// its slot's offset.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Beacon/Debuggable.h"
#include "Beacon/Magic.h"
#include "Beacon/SharedWord.h"
#include "Mem/RootPath.h"
#include "Mem/SharedMemWrapper.h"
#include "Mem/VersionedRef.h"
#include "SharedMem/EmberId.h"
#include "Tock/Sequence.h"

namespace Relay {

struct RelaySlot {};

template <typename Slot>
class RelayTable : public Beacon::Debuggable {
 public:
  enum RelayTableId : unsigned { PRIMARY = 0, SECONDARY = 1 };

  static constexpr unsigned long long kMagic = Beacon::Util::encodeMagic("HRNRELAY");
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::size_t kHeaderSize = 88;
  static constexpr std::size_t kSlotsOffset = 84;
  static constexpr std::size_t kSlotSize = 12;

  struct alignas(8) Header {
    std::uint64_t magic;
    std::uint32_t version;
    SharedMem::EmberId ember;
    std::uint64_t epoch[2];
    std::uint32_t connectedReaders;
    std::uint32_t reserved;
    std::uint32_t tableVersion;
    std::uint32_t currentTable;
    Tock::Sequence corralStart;
    Tock::Sequence corralEnd;
    std::uint64_t latestWriterSequence;
    Mem::VersionedRef<unsigned> notifications;
    std::uint32_t currentPos;
    std::uint32_t pad;

    // Bytes a file needs for `notifications` slots.
    static std::size_t fileSize(unsigned notifications);
    // Checks magic, version and that `fileSize` holds the announced
    // capacity; on failure `error` says what is wrong and by how much.
    bool validate(Beacon::Platform::DebugHandler& handler, unsigned fileSize, unsigned, std::string& error) const;
    // The same for a file size of any width: a queue whose capacity needs
    // more than 4 GiB - 1 bytes is valid where the file holds it.
    bool validateSize(Beacon::Platform::DebugHandler& handler, std::uint64_t fileSize, unsigned minCapacity,
                      std::string& error) const;
  };

  struct Notification {
    std::uint32_t sequence;  // low 32 bits of the writer sequence
    std::uint32_t offset;    // a Quarry::Offset, TOMBSTONED once released
    std::uint32_t size;      // payload bytes of the entry

    // "seq: <sequence, left in 10>  offset: 0x<offset, 8 hex digits>
    // <(region:unit) or (tombstoned), left in 14>  size: <size>", e.g.
    // "seq: 17          offset: 0x00300004 (3:4)           size: 64".
    std::string dump() const;
    // The same text written to `buffer` (at least kDumpMax bytes, not
    // terminated); returns its length.
    static constexpr std::size_t kDumpMax = 80;
    std::size_t dumpTo(char* buffer) const;
  };

  RelayTable(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, bool writer);
  ~RelayTable() override = default;

  const std::string& name() const { return name_; }

 protected:
  std::string name_;
  Mem::Tracked<Mem::SharedMemWrapper> files_[2];
};

// The shared layout, the same in 32- and 64-bit builds (where uint64_t is
// only 4-byte aligned inside structs: every field sits at its natural offset
// anyway, and alignas(8) fixes the record's own alignment).
using RelayHeaderLayout = RelayTable<RelaySlot>::Header;
using RelayNotificationLayout = RelayTable<RelaySlot>::Notification;
static_assert(sizeof(RelayHeaderLayout) == 88, "relay header is 88 bytes");
static_assert(alignof(RelayHeaderLayout) == 8, "relay header is 8-byte aligned");
static_assert(offsetof(RelayHeaderLayout, magic) == 0, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, version) == 8, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, ember) == 12, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, epoch) == 16, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, connectedReaders) == 32, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, reserved) == 36, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, tableVersion) == 40, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, currentTable) == 44, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, corralStart) == 48, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, corralEnd) == 56, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, latestWriterSequence) == 64, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, notifications) == 72, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, currentPos) == 80, "relay header layout");
static_assert(offsetof(RelayHeaderLayout, pad) == 84, "relay header layout");
static_assert(sizeof(RelayNotificationLayout) == 12, "relay slot is 12 bytes");
static_assert(offsetof(RelayNotificationLayout, sequence) == 0, "relay slot layout");
static_assert(offsetof(RelayNotificationLayout, offset) == 4, "relay slot layout");
static_assert(offsetof(RelayNotificationLayout, size) == 8, "relay slot layout");

// Words of the shared files, each loaded or stored as one access, at offsets
// taken from the layout above: the reader and the writer use these names
// and nothing else. The two 64-bit words that pair 32-bit fields hold the
// lower-addressed field in the low half (the host is little-endian):
//   kSwitchWord:        tableVersion (low) | currentTable (high)
//   kNotificationsWord: notifications.version (low) | notifications.value (high)
namespace Shared {

constexpr std::size_t kMagic = offsetof(RelayHeaderLayout, magic);
constexpr std::size_t kVersion = offsetof(RelayHeaderLayout, version);
constexpr std::size_t kEpochs = offsetof(RelayHeaderLayout, epoch);
constexpr std::size_t kConnectedReaders = offsetof(RelayHeaderLayout, connectedReaders);
constexpr std::size_t kSwitchWord = offsetof(RelayHeaderLayout, tableVersion);
constexpr std::size_t kCorralStart = offsetof(RelayHeaderLayout, corralStart);
constexpr std::size_t kCorralEnd = offsetof(RelayHeaderLayout, corralEnd);
constexpr std::size_t kLatestSequence = offsetof(RelayHeaderLayout, latestWriterSequence);
constexpr std::size_t kNotificationsWord = offsetof(RelayHeaderLayout, notifications);
constexpr std::size_t kCurrentPos = offsetof(RelayHeaderLayout, currentPos);
// Slot 0 starts on the header's last word, which holds nothing else.
constexpr std::size_t kSlots = offsetof(RelayHeaderLayout, pad);
constexpr std::size_t kSlotSize = sizeof(RelayNotificationLayout);
constexpr std::size_t kSlotSequence = offsetof(RelayNotificationLayout, sequence);
constexpr std::size_t kSlotOffset = offsetof(RelayNotificationLayout, offset);
constexpr std::size_t kSlotPayloadSize = offsetof(RelayNotificationLayout, size);

static_assert(offsetof(RelayHeaderLayout, currentTable) == kSwitchWord + 4,
              "currentTable is the switch word's high half");
static_assert(offsetof(Mem::VersionedRef<unsigned>, version) == 0 && offsetof(Mem::VersionedRef<unsigned>, value) == 4,
              "notifications: version is the word's low half, capacity its high half");
static_assert(kSwitchWord % 8 == 0 && kNotificationsWord % 8 == 0 && kEpochs % 8 == 0 && kCorralStart % 8 == 0 &&
                  kCorralEnd % 8 == 0 && kLatestSequence % 8 == 0,
              "64-bit shared words are 8-byte aligned");
static_assert(kSlots == RelayTable<RelaySlot>::kSlotsOffset && kSlotSize == RelayTable<RelaySlot>::kSlotSize,
              "slot geometry");

// The epoch of table `table` (0 primary, 1 secondary), kept in the primary file.
constexpr std::size_t epochAt(unsigned table) { return kEpochs + sizeof(std::uint64_t) * table; }
// Byte of slot `index` in a file.
constexpr std::size_t slotAt(std::size_t index) { return kSlots + kSlotSize * index; }

using Beacon::Shared::high;
using Beacon::Shared::load32;
using Beacon::Shared::load32Relaxed;
using Beacon::Shared::load64;
using Beacon::Shared::low;
using Beacon::Shared::pair;
using Beacon::Shared::store32;
using Beacon::Shared::store32Relaxed;
using Beacon::Shared::store64;

}  // namespace Shared
}  // namespace Relay

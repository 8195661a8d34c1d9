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

  static constexpr unsigned long long kMagic = 0x59414c45524e5248ULL;  // "HRNRELAY"
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
  };

  struct Notification {
    std::uint32_t sequence;  // low 32 bits of the writer sequence
    std::uint32_t offset;    // a Quarry::Offset, TOMBSTONED once released
    std::uint32_t size;      // payload bytes of the entry
    std::string dump() const;
  };

  RelayTable(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, bool writer);
  ~RelayTable() override = default;

  const std::string& name() const { return name_; }

 protected:
  std::string name_;
  Mem::Tracked<Mem::SharedMemWrapper> files_[2];
};

}  // namespace Relay

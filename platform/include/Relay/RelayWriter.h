// The writer side of a table's notification queue: `relay.1` (primary) and
// `relay.2` (secondary), both mapped read-write and shared.
//
// One writer per table. Not thread-safe: one thread drives a RelayWriter.
// Readers in other processes see the files change at any moment, so every
// word they rely on is written with an __atomic store, in this order:
//
//   append:    slot words (relaxed), corralEnd, latestWriterSequence (in the
//              primary), then currentPos + 1 with a release store.
//   switch:    (the active table is full) the other table: currentPos = 0,
//              corralStart = corralEnd = next sequence; its epoch + 1 in the
//              primary header; then {tableVersion + 1, currentTable = other}
//              as ONE 64-bit release store at byte 40 of the primary.
//   grow:      both files extended and remapped first, then
//              {notifications.version + 1, newCapacity} as ONE 64-bit release
//              store at byte 72 of each file.
//   tombstone: the slot's offset word = Quarry::Offset::TOMBSTONED (release).
//
// Writer sequences start at 1 (0 means "nothing written"); a slot keeps the
// low 32 bits. A table's corral [corralStart, corralEnd) is the range of
// writer sequences that its slots 0 .. currentPos - 1 hold, so slot p holds
// sequence corralStart + p.
#pragma once

#include <cstdint>
#include <string>

#include "Beacon/Debuggable.h"
#include "Mem/RootPath.h"
#include "Mem/SharedMemWrapper.h"
#include "Relay/RelayTable.h"
#include "SharedMem/EmberId.h"

namespace Relay {

class RelayWriter : public Beacon::Debuggable {
 public:
  using Table = RelayTable<RelaySlot>;
  using Header = Table::Header;
  using Notification = Table::Notification;
  using RelayTableId = Table::RelayTableId;

  RelayWriter(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root);
  ~RelayWriter() override = default;
  RelayWriter(const RelayWriter&) = delete;
  RelayWriter& operator=(const RelayWriter&) = delete;

  // Creates relay.1 and relay.2 (neither may exist) with `capacity` slots
  // each, fully initialised, without keeping them open. False with `error`
  // set on failure (a file already created stays).
  static bool createFiles(const Mem::RootPath& root, unsigned capacity, SharedMem::EmberId ember, std::string& error);

  // createFiles, then open.
  bool create(unsigned capacity, SharedMem::EmberId ember, std::string& error);
  // Opens an existing, valid pair read-write and takes the writer state
  // (sequence, table, positions) from it.
  bool open(std::string& error);
  bool isOpen() const { return header_[0] != nullptr && header_[1] != nullptr; }

  // Appends one notification to the active table and returns its writer
  // sequence. When the active table is full it first switches to the other
  // table (resetting it). Requires an open writer and a capacity above 0;
  // returns 0 otherwise.
  std::uint64_t append(std::uint32_t offset, std::uint32_t size);

  // Tombstones the slot that holds writer sequence `sequence`, in whichever
  // table's corral still holds it. False when no table holds it any more.
  bool tombstone(std::uint64_t sequence);
  // Tombstones slot `position` of `table`. False when position is not below
  // that table's capacity.
  bool tombstone(RelayTableId table, unsigned position);

  // Grows both tables to `newCapacity` slots (never shrinks: a smaller or
  // equal capacity is refused). False with `error` set on failure.
  bool grow(unsigned newCapacity, std::string& error);

  // Switches to the other table now, as append does when the active one is
  // full.
  void switchTables();

  void setConnectedReaders(std::uint32_t readers);

  unsigned capacity() const;
  RelayTableId currentTable() const;
  // The active table's currentPos: the number of slots it holds.
  unsigned position() const;
  unsigned position(RelayTableId table) const;
  std::uint32_t tableVersion() const;
  std::uint32_t notificationsVersion() const;
  // The sequence of the last append; 0 before the first.
  std::uint64_t latestSequence() const { return nextSequence_ - 1; }

 private:
  bool mapBoth(std::size_t size, std::string& error);

  Mem::RootPath root_;
  Mem::Tracked<Mem::SharedMemWrapper> files_[2];
  Header* header_[2] = {nullptr, nullptr};
  std::uint64_t nextSequence_ = 1;
};

}  // namespace Relay

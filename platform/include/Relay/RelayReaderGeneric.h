// Read-only attachment to a table's two notification-queue files.
//
// Lifecycle: construct -> initialize() true -> any number of scan() calls ->
// destroy. After a failed initialize() only destruction is allowed. All
// fields are plain values and pointers into the mappings the base owns.
// Single-threaded; the writer changes the memory at any moment, so every
// shared word is loaded once into a local before it is tested or printed.
#pragma once

#include <cstdint>
#include <iostream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "Mem/MapExtent.h"
#include "Relay/RelayTable.h"

namespace Relay {

template <typename Slot>
class RelayReaderGeneric : public RelayTable<Slot> {
 public:
  using Base = RelayTable<Slot>;
  using Header = typename Base::Header;
  using Notification = typename Base::Notification;
  using RelayTableId = typename Base::RelayTableId;

  // `extent`: MapExtent::Header maps each file's header only, never its
  // slots: header() works, takeSnapshot() and scan() are fatal.
  RelayReaderGeneric(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, bool writer,
                     Mem::MapExtent extent = Mem::MapExtent::Whole);
  ~RelayReaderGeneric() override = default;

  bool initialize();
  // Why the last initialize() refused the files when it said so ("Relay
  // <name> validation failed: <reason>"), or "".
  const std::string& lastError() const { return lastError_; }
  // Where initialize() says why it refuses the files: standard error by
  // default; null keeps the text in lastError() only (a caller that reports
  // it in its own words, from any thread).
  void reportErrorsTo(std::ostream* out) { errors_ = out; }
  void resizeRelay(RelayTableId id);
  // A copy of table id's header, taken with single loads of its words.
  Header header(RelayTableId id) const;
  void formatIndividualRelayHeader(const Header& header, std::ostream& out) const;

  void scan(std::ostream& out, bool activeOnly);
  void printQueue(RelayTableId id, std::vector<Notification> (&snapshot)[2], bool activeOnly, std::ostringstream& out);

  // The attempts of scan: fills `snapshot` (vectors cleared and reused,
  // reserved to the cached capacities) from one consistent view of the
  // tables and returns the number of restarts it took.
  unsigned takeSnapshot(std::vector<Notification> (&snapshot)[2], bool activeOnly);

  // The snapshot fields of the last attempt.
  std::uint64_t switchSnapshot() const { return switchSnapshot_; }
  std::uint32_t snapshotPosition(RelayTableId id) const { return currentPos_[id]; }
  Mem::VersionedRef<unsigned> cachedNotifications(RelayTableId id) const { return cachedNotifications_[id]; }
  std::size_t mappedSize(RelayTableId id) const { return this->files_[id].mappedSize(); }
  // Start of table id's slot array in the mapping.
  const void* slots(RelayTableId id) const { return reinterpret_cast<const char*>(header_[id]) + Shared::kSlots; }

 private:
  // The attempts, emptying `report` (when given) at the start of each.
  unsigned attempt(std::vector<Notification> (&snapshot)[2], bool activeOnly, std::ostringstream* report);
  // Copies table id's slots into `into`; false when the writer moved (a
  // restart is due).
  bool collect(RelayTableId id, std::vector<Notification>& into) const;
  // Fatal when table id's file is now shorter than its mapping: touching
  // the mapping would fault.
  void checkMapping(RelayTableId id) const;

 protected:
  std::uint64_t switchSnapshot_ = 0;
  const Header* header_[2] = {nullptr, nullptr};
  const Mem::VersionedRef<unsigned>* notificationsRef_[2] = {nullptr, nullptr};
  std::uint32_t currentPos_[2] = {0, 0};
  Mem::VersionedRef<unsigned> cachedNotifications_[2] = {{0xFFFFFFFFU, 0}, {0xFFFFFFFFU, 0}};
  std::string lastError_;
  std::ostream* errors_ = &std::cerr;
  Mem::MapExtent extent_;
};

}  // namespace Relay

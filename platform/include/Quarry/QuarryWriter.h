// Writer side of the region allocator of one table.
//
// One QuarryWriter per table and process; not thread-safe (one writer
// thread). Readers in other processes see every change consistently through
// the generation protocol of Quarry/QuarryFormat.h.
//
// Usage:
//   Quarry::QuarryWriter w(handler, root);
//   if (!w.create(error)) ...        // new table: writes `quarry`
//   if (!w.open(error)) ...          // existing table: adopts `quarry` and
//                                    // every region.<id> present
//   std::uint32_t id = w.createRegion(64, 256, error);   // 0 on failure
//   std::uint32_t off = w.allocate(id, data, len);        // TOMBSTONED when full
//   w.update(off, data, len);  w.release(off);  w.deleteRegion(id);
//
// Region files are created at full size under a temporary name and renamed
// into place, so a reader never sees a half-written header; they are never
// truncated, only deleted whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Beacon/Debuggable.h"
#include "Mem/RootPath.h"
#include "Quarry/Offset.h"
#include "Quarry/QuarryFormat.h"

namespace Quarry {

class QuarryWriter : public Beacon::Debuggable {
 public:
  QuarryWriter(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root);
  ~QuarryWriter() override;
  QuarryWriter(const QuarryWriter&) = delete;
  QuarryWriter& operator=(const QuarryWriter&) = delete;

  // Creates the `quarry` file (it must not exist) and opens it.
  bool create(std::string& error);
  // Opens an existing `quarry` file and maps every region file present.
  bool open(std::string& error);

  // Creates a region of `unitCount` units of `unitSize` bytes (unitCount
  // 1..2^20-1; unitSize may be 0). Returns its id, 0 on failure (no free id,
  // bad arguments, file error) with `error` set.
  std::uint32_t createRegion(std::uint32_t unitSize, std::uint32_t unitCount, std::string& error);
  // Unmaps and deletes a region whole; its units are counted as released.
  bool deleteRegion(std::uint32_t regionId);

  // Allocates the lowest free unit of a region and copies `size` bytes of
  // `data` (at most the unit size; the rest of the unit is zeroed) into it
  // inside the same generation window. Returns its Quarry::Offset value, or
  // Offset::TOMBSTONED when the region is full or unknown.
  std::uint32_t allocate(std::uint32_t regionId, const void* data = nullptr, std::size_t size = 0);
  // Allocates in the region of the smallest unit size >= `size` that has a
  // free unit (lowest id among equals); TOMBSTONED when none has.
  std::uint32_t allocateFitting(const void* data, std::size_t size);
  // Rewrites an allocated unit's payload under the region's generation.
  bool update(std::uint32_t offset, const void* data, std::size_t size);
  // Frees an allocated unit. False when the offset names no allocated unit.
  bool release(std::uint32_t offset);

  // Direct access to an allocated unit's payload (unit size bytes), nullptr
  // when the offset names no allocated unit. Writes through it are not
  // covered by the generation: use update() for data readers must see whole.
  void* payload(std::uint32_t offset);

  bool isOpen() const { return header_ != nullptr; }
  std::vector<std::uint32_t> regionIds() const;
  std::uint32_t unitSize(std::uint32_t regionId) const;
  std::uint32_t unitCount(std::uint32_t regionId) const;
  std::uint32_t usedUnits(std::uint32_t regionId) const;
  bool isAllocated(std::uint32_t offset) const;
  std::uint32_t pageSize() const { return pageSize_; }
  const QuarryHeader* header() const { return header_; }

 private:
  struct Mapping;

  bool mapQuarry(int fd, std::string& error);
  bool adoptRegion(std::uint32_t regionId);
  Mapping* find(std::uint32_t regionId) const;
  // The next free id at or after nextRegionId, wrapping; 0 when none is.
  std::uint32_t freeRegionId() const;
  // A new region file of `size` bytes at `temporary`, mapped read-write;
  // null with `error` set on failure.
  static std::unique_ptr<Mapping> mapNewFile(const std::string& temporary, std::size_t size, std::string& error);
  void beginQuarry();
  void endQuarry();

  Mem::RootPath root_;
  std::uint32_t pageSize_ = 4096;
  QuarryHeader* header_ = nullptr;
  std::map<std::uint32_t, std::unique_ptr<Mapping>> regions_;
};

}  // namespace Quarry

// One attached region file, mapped read-only at the size the file had when
// it was attached (region files never shrink), or only its header and
// bitmap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Beacon/MappingGuard.h"
#include "Beacon/SharedWord.h"
#include "Mem/MapExtent.h"
#include "Quarry/QuarryFormat.h"

namespace Quarry {

// Owns the read-only mapping of one region file.
class RegionReader {
 public:
  RegionReader() = default;
  ~RegionReader();
  RegionReader(const RegionReader&) = delete;
  RegionReader& operator=(const RegionReader&) = delete;

  // Opens `path` O_RDONLY, checks its size against what the header claims
  // and maps it: the whole file, or with MapExtent::Header the header and
  // bitmap only, [0, dataOffset). False with `error` set (one line) when it
  // is unusable.
  bool attach(const std::string& path, std::uint32_t expectedId, std::string& error,
              Mem::MapExtent extent = Mem::MapExtent::Whole);

  // The header as copied and validated at attach. Its fixed fields (id, unit
  // size and count, page size, offsets) bound every later read of the
  // mapping, so a header rewritten behind the reader's back cannot move a
  // read outside it; its used count and generation are those of that moment.
  const RegionHeader& header() const { return header_; }
  // The writer's current used count, one relaxed load from the mapping.
  std::uint32_t usedUnits() const { return Beacon::Shared::load32Relaxed(&live(), offsetof(RegionHeader, usedUnits)); }
  std::size_t mappedSize() const { return size_; }
  // Whether the mapping holds every unit's bytes (not when only the header
  // and bitmap are mapped).
  bool unitsMapped() const {
    return size_ >= header_.dataOffset + static_cast<std::uint64_t>(header_.unitCount) * header_.unitSize;
  }

 protected:
  // The header in the shared mapping: only its changing fields are read.
  const RegionHeader& live() const { return *reinterpret_cast<const RegionHeader*>(base_); }

  const unsigned char* base_ = nullptr;
  std::size_t size_ = 0;
  RegionHeader header_{};

 private:
  bool mapWhole(int fd, unsigned long long fileSize, std::uint32_t expectedId, std::string& error);
  bool mapHeaderAndBitmap(int fd, unsigned long long fileSize, std::uint32_t expectedId, std::string& error);
  bool map(int fd, std::size_t length, std::string& error);
  void unmap();

  Beacon::MappingGuard::Range guard_;
};

// A consistent copy of a region's changing parts.
struct RegionSnapshot {
  std::uint64_t generation = 0;
  std::uint32_t usedUnits = 0;
  std::vector<unsigned char> bitmap;  // unitCount bits
  std::vector<std::uint32_t> used;    // indices of the used units, ascending
  // previewBytes per used unit, in `used` order; with `everyUnit`, per unit
  // in unit order, free units included.
  std::vector<unsigned char> previews;
  unsigned previewBytes = 0;
  bool everyUnit = false;
  unsigned attempts = 0;
  bool consistent = false;
};

class RegionScanner : public RegionReader {
 public:
  std::uint32_t id() const { return header().regionId; }
  // Copies usedUnits and the bitmap (and the first `previewBytes` of each
  // used unit), retrying up to `attempts` times while the writer changes the
  // region. `consistent` is false when no attempt succeeded; the last copy
  // is kept. With `everyUnit` the previews cover every unit, free ones too
  // (what a released entry left in memory). Previews need the units mapped
  // (unitsMapped()): asking them of a header-only mapping is fatal.
  void snapshot(RegionSnapshot& out, unsigned previewBytes, unsigned attempts, bool everyUnit = false) const;
  // Pages of the unit area that no used unit touches.
  std::uint32_t numFreePages() const;
  // The same, counted from a snapshot's bitmap.
  std::uint32_t numFreePages(const RegionSnapshot& snapshot) const;
};

}  // namespace Quarry

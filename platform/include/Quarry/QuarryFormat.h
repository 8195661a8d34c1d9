// On-disk layout of the region allocator: the 64-byte `quarry` file and the
// `region.<id>` files (64-byte header, used-unit bitmap, page-aligned units).
//
// Both layouts are identical in 32- and 64-bit builds (alignas(8) and pinned
// offsets), so a 32-bit reader reads a 64-bit writer's files and back.
//
// Concurrency protocol (one writer process, any number of readers):
//  - A region's `generation` is odd while the writer changes its bitmap,
//    usedUnits or the payload of a unit it allocates or updates; the writer
//    makes it odd with a store followed by a release fence, changes the words,
//    then makes it even with a release store.
//  - A reader loads the generation (acquire), copies, issues an acquire fence,
//    loads the generation again, and keeps the copy only when both loads are
//    equal and even.
//  - The `quarry` file's generation follows the same rule for its counters.
//
// Bitmap: bit i (unit i in use) is bit (i % 8) of byte (bitmapOffset + i / 8).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Beacon/Magic.h"
#include "Beacon/Platform.h"

namespace Quarry {

constexpr const char* kQuarryFileName = "quarry";
constexpr const char* kRegionFilePrefix = "region.";

struct alignas(8) QuarryHeader {
  static constexpr unsigned long long kMagic = Beacon::Util::encodeMagic("HRNQUARY");
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::uint32_t kMaxRegionId = 4095;

  std::uint64_t magic;
  std::uint32_t version;
  std::uint32_t pageSize;
  std::uint32_t maxRegionId;
  std::uint32_t nextRegionId;
  std::uint32_t liveRegions;
  std::uint32_t reserved;
  std::uint64_t allocations;
  std::uint64_t releases;
  std::uint64_t bytesInUse;
  std::uint64_t generation;
};

static_assert(sizeof(QuarryHeader) == 64, "quarry is 64 bytes");
static_assert(offsetof(QuarryHeader, version) == 8, "quarry layout");
static_assert(offsetof(QuarryHeader, pageSize) == 12, "quarry layout");
static_assert(offsetof(QuarryHeader, maxRegionId) == 16, "quarry layout");
static_assert(offsetof(QuarryHeader, nextRegionId) == 20, "quarry layout");
static_assert(offsetof(QuarryHeader, liveRegions) == 24, "quarry layout");
static_assert(offsetof(QuarryHeader, reserved) == 28, "quarry layout");
static_assert(offsetof(QuarryHeader, allocations) == 32, "quarry layout");
static_assert(offsetof(QuarryHeader, releases) == 40, "quarry layout");
static_assert(offsetof(QuarryHeader, bytesInUse) == 48, "quarry layout");
static_assert(offsetof(QuarryHeader, generation) == 56, "quarry layout");

struct alignas(8) RegionHeader {
  static constexpr unsigned long long kMagic = Beacon::Util::encodeMagic("HRNREGON");
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::uint32_t kBitmapOffset = 64;

  std::uint64_t magic;
  std::uint32_t version;
  std::uint32_t unitCount;
  std::uint32_t usedUnits;
  std::uint32_t unitSize;
  std::uint32_t regionId;
  std::uint32_t pageSize;
  std::uint64_t generation;
  std::uint32_t bitmapOffset;
  std::uint32_t dataOffset;
  std::uint64_t createdNs;
  std::uint64_t reserved;
};

static_assert(sizeof(RegionHeader) == 64, "region header is 64 bytes");
static_assert(offsetof(RegionHeader, version) == 8, "region layout");
static_assert(offsetof(RegionHeader, unitCount) == 12, "region layout");
static_assert(offsetof(RegionHeader, usedUnits) == 16, "region layout");
static_assert(offsetof(RegionHeader, unitSize) == 20, "region layout");
static_assert(offsetof(RegionHeader, regionId) == 24, "region layout");
static_assert(offsetof(RegionHeader, pageSize) == 28, "region layout");
static_assert(offsetof(RegionHeader, generation) == 32, "region layout");
static_assert(offsetof(RegionHeader, bitmapOffset) == 40, "region layout");
static_assert(offsetof(RegionHeader, dataOffset) == 44, "region layout");
static_assert(offsetof(RegionHeader, createdNs) == 48, "region layout");
static_assert(offsetof(RegionHeader, reserved) == 56, "region layout");

// Copies a reader tries before it reports a header or region that the
// writer kept changing.
constexpr unsigned kCopyAttempts = 16;

// Layout of a region of `unitCount` units of `unitSize` bytes: the data
// offset (page-aligned end of header and bitmap) and the file size (data
// offset plus the units, rounded up to a page). False when it does not fit
// in 64 bits or the page size is 0.
struct RegionLayout {
  std::uint64_t dataOffset = 0;
  std::uint64_t fileSize = 0;
};
bool regionLayout(std::uint32_t unitCount, std::uint32_t unitSize, std::uint32_t pageSize, RegionLayout& out);

namespace Region {
// The id of a "region.<id>" file name (decimal, 1..4095, no leading zeros);
// 0 when the name is not a region file.
std::uint32_t parseRegionId(Beacon::Platform::DebugHandler& handler, const std::string& fileName);
}  // namespace Region

}  // namespace Quarry

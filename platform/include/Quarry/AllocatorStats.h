// The region allocator's figures as plain numbers: what every report of a
// table's allocator (heron's statistics, the client reports' capacity line,
// heron-stat) is computed from, so that they all count the same way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Quarry {

class RegionScanner;
struct RegionSnapshot;

// One region as one consistent copy of it showed it.
struct RegionStats {
  std::uint32_t id = 0;
  std::uint32_t unitSize = 0;
  std::uint32_t units = 0;
  std::uint32_t usedCount = 0;  // the header's used count as copied
  std::uint32_t inBitmap = 0;   // units the bitmap marks used
  std::uint32_t freePages = 0;
  bool copySettled = true;  // false: the writer kept changing the region

  // The used count, never above the unit count.
  std::uint32_t used() const { return usedCount < units ? usedCount : units; }
  // Only the units that both the count and the bitmap vouch for: garbage
  // never makes a region look fuller than it is.
  std::uint32_t confirmedUsed() const { return inBitmap < used() ? inBitmap : used(); }
  // A count above the unit count, or one the bitmap disagrees with, is
  // damage (or a writer that broke the protocol).
  bool countsAgree() const { return usedCount <= units && usedCount == inBitmap; }
  std::uint64_t bytes() const { return static_cast<std::uint64_t>(units) * unitSize; }
  std::uint64_t usedBytes() const { return static_cast<std::uint64_t>(used()) * unitSize; }
  // Whole percent of the units used, truncated.
  unsigned usedPercent() const;
};

struct AllocatorStats {
  std::vector<RegionStats> regions;  // in the order they were read
  std::uint64_t bytes = 0;
  std::uint64_t usedBytes = 0;           // by each region's used()
  std::uint64_t confirmedUsedBytes = 0;  // by each region's confirmedUsed()
  std::uint64_t freePages = 0;
  // The allocator file's own counters.
  std::uint64_t allocations = 0;
  std::uint64_t releases = 0;
  bool countersSettled = true;

  void add(const RegionStats& region);
  std::uint64_t freeBytes() const { return bytes - usedBytes; }
  // Whole percent of the bytes used, truncated, never above 100; 0 when
  // there are none.
  unsigned occupancyPercent() const;
};

// Whole percent, truncated, never above 100; 0 for an empty whole.
unsigned wholePercent(std::uint64_t part, std::uint64_t whole);

// The figures of one attached region; `copy` is scratch space reused from
// one region to the next.
RegionStats readRegionStats(const RegionScanner& region, RegionSnapshot& copy, unsigned attempts);
// The same from a copy already taken.
RegionStats regionStatsOf(const RegionScanner& region, const RegionSnapshot& copy);

}  // namespace Quarry

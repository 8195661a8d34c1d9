#include "Quarry/AllocatorStats.h"

#include <algorithm>

#include "Quarry/Region.h"

namespace Quarry {

unsigned wholePercent(std::uint64_t part, std::uint64_t whole) {
  return whole == 0 ? 0U : static_cast<unsigned>(std::min(part, whole) * 100 / whole);
}

unsigned RegionStats::usedPercent() const { return wholePercent(used(), units); }

void AllocatorStats::add(const RegionStats& region) {
  bytes += region.bytes();
  usedBytes += region.usedBytes();
  confirmedUsedBytes += static_cast<std::uint64_t>(region.confirmedUsed()) * region.unitSize;
  freePages += region.freePages;
  regions.push_back(region);
}

unsigned AllocatorStats::occupancyPercent() const { return wholePercent(usedBytes, bytes); }

RegionStats readRegionStats(const RegionScanner& region, RegionSnapshot& copy, unsigned attempts) {
  region.snapshot(copy, 0, attempts);
  return regionStatsOf(region, copy);
}

RegionStats regionStatsOf(const RegionScanner& region, const RegionSnapshot& copy) {
  const RegionHeader& header = region.header();
  RegionStats stats;
  stats.id = region.id();
  stats.unitSize = header.unitSize;
  stats.units = header.unitCount;
  stats.usedCount = copy.usedUnits;
  stats.inBitmap = static_cast<std::uint32_t>(copy.used.size());
  stats.freePages = region.numFreePages(copy);
  stats.copySettled = copy.consistent;
  return stats;
}

}  // namespace Quarry

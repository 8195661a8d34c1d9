#include "readers/QuarryHelperScanner.h"

namespace Heron {

void capacityFromStats(const Quarry::AllocatorStats& stats, Model::HeaderInfo& info) {
  std::uint64_t usedBytes = 0;
  std::uint64_t freeBytes = 0;
  for (const Quarry::RegionStats& region : stats.regions) {
    // Deliberate: the capacity line forms each region's products in 32 bits
    // and widens them afterwards, so a region of 4 GiB or more wraps here
    // (and only here); every other report counts in 64 bits.
    const std::uint64_t usedProduct = static_cast<std::uint32_t>(region.used() * region.unitSize);
    const std::uint64_t totalProduct = static_cast<std::uint32_t>(region.units * region.unitSize);
    usedBytes += usedProduct;
    freeBytes += totalProduct - usedProduct;
  }
  info.numRegions = stats.regions.size();
  info.pagesFree = stats.freePages;
  info.totalSize = usedBytes + freeBytes;
  // Products wrapped in 32 bits can still put usedBytes above the total.
  info.occupancyRate = Quarry::wholePercent(usedBytes, info.totalSize);
}

void QuarryHelperScanner::fillHeader(Model::HeaderInfo& info) {
  const Quarry::AllocatorStats stats = readStats();
  if (!listError_.empty()) {
    // The table directory could not be listed: the region figures are not
    // known, which is not the same as none (they stay "NA").
    return;
  }
  capacityFromStats(stats, info);
}

}  // namespace Heron

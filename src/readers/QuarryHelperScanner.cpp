#include "readers/QuarryHelperScanner.h"

#include <algorithm>
#include <vector>

#include "Quarry/Region.h"

namespace Heron {

void QuarryHelperScanner::fillHeader(Model::HeaderInfo& info) {
  attachRegions();
  if (!listError_.empty()) {
    // The table directory could not be listed: the region figures are not
    // known, which is not the same as none (they stay "NA").
    return;
  }
  if (regions_.empty()) {
    info.numRegions = 0;
    info.totalSize = 0;
    info.pagesFree = 0;
    info.occupancyRate = 0;
    return;
  }
  // The map shrinks while the regions are counted and released.
  std::vector<Quarry::RegionScanner*> scanners;
  scanners.reserve(regions_.size());
  for (const auto& entry : regions_) {
    scanners.push_back(entry.second.get());
  }
  info.numRegions = scanners.size();
  info.pagesFree = 0;
  info.occupancyRate = 0;
  std::uint64_t usedBytes = 0;
  std::uint64_t freeBytes = 0;
  for (Quarry::RegionScanner* scanner : scanners) {
    // Unit count and size as validated at attach; the used count as it is now.
    const Quarry::RegionHeader& header = scanner->header();
    const std::uint32_t units = header.unitCount;
    // A used count above the unit count is damage: clamped, so that the
    // occupancy never exceeds 100 %.
    const std::uint32_t used = std::min(scanner->usedUnits(), units);
    const std::uint32_t size = header.unitSize;
    // Products formed in 32 bits, then widened.
    const std::uint64_t usedProduct = static_cast<std::uint32_t>(used * size);
    const std::uint64_t totalProduct = static_cast<std::uint32_t>(units * size);
    usedBytes += usedProduct;
    freeBytes += totalProduct - usedProduct;
    info.pagesFree += scanner->numFreePages();
    auto found = regions_.find(scanner->id());
    if (found != regions_.end()) {
      regions_.erase(found);
    }
  }
  info.totalSize = usedBytes + freeBytes;
  if (info.totalSize != 0) {
    // Products wrapped in 32 bits can still put usedBytes above the total.
    info.occupancyRate = static_cast<std::uint32_t>(std::min<std::uint64_t>(usedBytes * 100 / info.totalSize, 100));
  }
}

}  // namespace Heron

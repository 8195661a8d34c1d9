#include "readers/QuarryHelperScanner.h"

#include <algorithm>

#include "Quarry/Region.h"

namespace Heron {

void QuarryHelperScanner::fillHeader(Model::HeaderInfo& info) {
  std::uint64_t numRegions = 0;
  std::uint64_t pagesFree = 0;
  std::uint64_t usedBytes = 0;
  std::uint64_t freeBytes = 0;
  // One copy reused for every region's bitmap.
  Quarry::RegionSnapshot copy;
  // Each region is counted as it is attached and released at once.
  visitAndReleaseRegions([&](const Quarry::RegionScanner& scanner) {
    // Unit count and size as validated at attach; the used count as it is now.
    const Quarry::RegionHeader& header = scanner.header();
    const std::uint32_t units = header.unitCount;
    // A used count above the unit count is damage: clamped, so that the
    // occupancy never exceeds 100 %.
    const std::uint32_t used = std::min(scanner.usedUnits(), units);
    const std::uint32_t size = header.unitSize;
    // Products formed in 32 bits, then widened.
    const std::uint64_t usedProduct = static_cast<std::uint32_t>(used * size);
    const std::uint64_t totalProduct = static_cast<std::uint32_t>(units * size);
    usedBytes += usedProduct;
    freeBytes += totalProduct - usedProduct;
    scanner.snapshot(copy, 0, kCopyAttempts);
    pagesFree += scanner.numFreePages(copy);
    ++numRegions;
  });
  if (!listError_.empty()) {
    // The table directory could not be listed: the region figures are not
    // known, which is not the same as none (they stay "NA").
    return;
  }
  info.numRegions = numRegions;
  info.pagesFree = pagesFree;
  info.totalSize = usedBytes + freeBytes;
  info.occupancyRate = 0;
  if (info.totalSize != 0) {
    // Products wrapped in 32 bits can still put usedBytes above the total.
    info.occupancyRate = static_cast<std::uint32_t>(std::min<std::uint64_t>(usedBytes * 100 / info.totalSize, 100));
  }
}

}  // namespace Heron

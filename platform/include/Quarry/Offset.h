// A unit of the region allocator named in 32 bits: region id in the top 12
// bits, unit index in the low 20. TOMBSTONED marks a released entry.
#pragma once

#include <cstdint>

namespace Quarry {

struct Offset {
  static constexpr std::uint32_t TOMBSTONED = 0xFFFFFFFFU;
  static constexpr std::uint32_t kMaxRegionId = 4095;
  static constexpr std::uint32_t kMaxUnitIndex = (1U << 20) - 1;

  static constexpr std::uint32_t encode(std::uint32_t regionId, std::uint32_t unitIndex) {
    return (regionId << 20) | (unitIndex & kMaxUnitIndex);
  }
  static constexpr std::uint32_t regionId(std::uint32_t offset) { return offset >> 20; }
  static constexpr std::uint32_t unitIndex(std::uint32_t offset) { return offset & kMaxUnitIndex; }
};

static_assert(Offset::encode(4095, Offset::kMaxUnitIndex) == Offset::TOMBSTONED,
              "the largest unit of the largest region is reserved as the tombstone");

}  // namespace Quarry

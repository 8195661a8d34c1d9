// The small table of the quarry tests: region 1 (16 x 4) holds alpha and
// gamma (beta was released), region 2 (8 x 2) holds 01234567 (ten bytes
// given, eight kept); and what a scan prints of it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "Quarry/Offset.h"
#include "Quarry/QuarryWriter.h"

namespace QuarryTest {

// Fills regions `one` (16 x 4) and `two` (8 x 2), both empty.
inline ::testing::AssertionResult fillSmallTable(Quarry::QuarryWriter& writer, std::uint32_t one, std::uint32_t two) {
  const bool ok = writer.allocate(one, "alpha", 5) != Quarry::Offset::TOMBSTONED &&
                  writer.allocate(one, "beta", 4) != Quarry::Offset::TOMBSTONED &&
                  writer.allocate(one, "gamma", 5) != Quarry::Offset::TOMBSTONED &&
                  writer.release(Quarry::Offset::encode(one, 1)) &&
                  writer.allocate(two, "0123456789", 10) != Quarry::Offset::TOMBSTONED;
  return ok ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "could not fill the small table";
}

inline constexpr const char* kRegionOne =
    "Region 1: entry size 16, units 4, used 2, generation 8\n"
    "  offset        unit    size  preview\n"
    "  0x00100000       0      16  61 6c 70 68 61 00 00 00 00 00 00 00 00 00 00 00  |alpha...........|\n"
    "  0x00100002       2      16  67 61 6d 6d 61 00 00 00 00 00 00 00 00 00 00 00  |gamma...........|\n";
inline constexpr const char* kRegionTwo =
    "Region 2: entry size 8, units 2, used 1, generation 2\n"
    "  offset        unit    size  preview\n"
    "  0x00200000       0       8  30 31 32 33 34 35 36 37                          |01234567|\n";

// 16x4 and 8x2 units: one page each; region 1 holds 32 of 64 bytes, region 2
// 8 of 16: 40 of 80 bytes, 50 %; both unit areas touched, no page free.
inline constexpr const char* kTotals =
    "Region allocator statistics\n"
    "  regions       2\n"
    "  bytes         80\n"
    "  used          40\n"
    "  free          40\n"
    "  pages free    0\n"
    "  occupancy     50%\n"
    "  allocations   4\n"
    "  releases      1\n";

}  // namespace QuarryTest

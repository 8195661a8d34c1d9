// Pieces of heron's report text that several tests expect.
#pragma once

namespace HeronTest {

// The capacity lines of a table whose header has not been read.
inline constexpr const char* kNoHeader =
    "Capacity: primaryNotifications:NA secondaryNotifications:NA\n"
    "numRegions:NA totalSize:NA pagesFree:NA occupancyRate:NA%\n";

}  // namespace HeronTest

// Kinds of shared-memory directories, as the owner file records them.
#pragma once

#include <cstdint>
#include <ostream>

namespace SharedMem {

enum SharedMemType : std::uint32_t {
  Unknown = 0,  // no readable owner file
  Segment = 1,  // a plain shared segment, not a table
  Table = 2,    // a heron table
  Archive = 3,  // a table kept without a writer
};

// "unknown", "segment", "table", "archive", or the number.
std::ostream& operator<<(std::ostream& out, SharedMemType type);

}  // namespace SharedMem

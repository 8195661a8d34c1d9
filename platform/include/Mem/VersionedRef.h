// A value with the version under which it was published. Shared layout:
// version (u32) then value; stored and loaded as one 64-bit word for u32.
#pragma once

#include <cstdint>
#include <ostream>

namespace Mem {

template <typename T>
struct VersionedRef {
  std::uint32_t version;
  T value;
};

static_assert(sizeof(VersionedRef<unsigned>) == 8, "VersionedRef<unsigned> is one 64-bit word");

// Printed as "<value> (v<version>)", e.g. "1024 (v3)".
std::ostream& operator<<(std::ostream& out, const VersionedRef<unsigned>& ref);

}  // namespace Mem

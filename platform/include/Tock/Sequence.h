// A writer sequence number.
#pragma once

#include <cstdint>
#include <ostream>

namespace Tock {

struct Sequence {
  std::uint64_t value;
};

static_assert(sizeof(Sequence) == 8, "Sequence is one 64-bit word");

// Printed in decimal.
std::ostream& operator<<(std::ostream& out, const Sequence& sequence);

}  // namespace Tock

#include "Tock/Sequence.h"

namespace Tock {

std::ostream& operator<<(std::ostream& out, const Sequence& sequence) {
  // Decimal whatever the stream's base: callers print these inside blocks
  // that switched the stream to hexadecimal.
  std::ios_base::fmtflags flags = out.flags();
  out << std::dec << sequence.value;
  out.flags(flags);
  return out;
}

}  // namespace Tock

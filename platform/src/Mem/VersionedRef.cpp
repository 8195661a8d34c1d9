#include "Mem/VersionedRef.h"

namespace Mem {

std::ostream& operator<<(std::ostream& out, const VersionedRef<unsigned>& ref) {
  std::ios_base::fmtflags flags = out.flags();
  out << std::dec << ref.value << " (v" << ref.version << ')';
  out.flags(flags);
  return out;
}

}  // namespace Mem

#include "SharedMem/EmberId.h"

namespace SharedMem {

std::ostream& operator<<(std::ostream& out, const EmberId& id) {
  std::ios_base::fmtflags flags = out.flags();
  out << std::dec << id.pid << '.' << id.instanceId;
  out.flags(flags);
  return out;
}

}  // namespace SharedMem

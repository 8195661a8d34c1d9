#include "SharedMem/SharedMemType.h"

namespace SharedMem {

std::ostream& operator<<(std::ostream& out, SharedMemType type) {
  switch (type) {
    case Unknown:
      return out << "unknown";
    case Segment:
      return out << "segment";
    case Table:
      return out << "table";
    case Archive:
      return out << "archive";
  }
  return out << static_cast<std::uint32_t>(type);
}

}  // namespace SharedMem

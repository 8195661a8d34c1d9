#include "model/HeronType.h"

namespace Heron {

std::ostream& operator<<(std::ostream& out, const HeronType& type) {
  switch (type) {
    case Writer:
      return out << "Writer";
    case Shadow:
      return out << "Shadow";
  }
  return out << static_cast<int>(type);
}

}  // namespace Heron

// Client category of a process attached to a table.
#pragma once

#include <ostream>

namespace Heron {

enum HeronType : int { Writer = 0, Shadow = 1 };

// "Writer" or "Shadow"; any other value prints as its number.
std::ostream& operator<<(std::ostream& out, const HeronType& type);

}  // namespace Heron

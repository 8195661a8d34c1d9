// Placeholder until shadows land.
#include <iostream>

#include "Sim.h"

namespace Sim {
int commandShadow(const std::string&, const Options&) {
  std::cerr << "heron-sim shadow: not available in this build\n";
  return 2;
}
}  // namespace Sim

// Placeholder until the writer and the demo land.
#include <iostream>

#include "Sim.h"

namespace Sim {
int commandWrite(const std::string&, const Options&) {
  std::cerr << "heron-sim write: not available in this build\n";
  return 2;
}
int commandDemo(const Options&) {
  std::cerr << "heron-sim demo: not available in this build\n";
  return 2;
}
}  // namespace Sim

// Placeholder until the region writer lands: no allocator files yet.
#include "Sim.h"

namespace Sim {
bool createAllocator(const Mem::RootPath&, const Options&, std::string&) { return true; }
}  // namespace Sim

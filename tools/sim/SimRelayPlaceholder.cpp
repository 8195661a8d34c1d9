// Placeholder until the queue writer lands: no queue files yet.
#include "Sim.h"

namespace Sim {
bool createQueues(const Mem::RootPath&, const Options&, std::string&) { return true; }
}  // namespace Sim

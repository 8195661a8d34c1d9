// Temporary: only the ember side until the queue and region writers are
// merged; step() counts and writes nothing.
#include "WriteTable.h"

namespace Sim {

struct WriteTable::Impl {
  WriteSettings settings;
};

WriteTable::WriteTable(Beacon::Platform::DebugHandler&, const Mem::RootPath&, const WriteSettings& settings)
    : impl_(new Impl{settings}) {}
WriteTable::~WriteTable() = default;
bool WriteTable::open(SharedMem::EmberId, std::string&) { return true; }
bool WriteTable::step(std::string&) { return true; }
void WriteTable::close() {}

}  // namespace Sim

// heron-sim create: the table's two notification-queue files.
#include <unistd.h>

#include <cstdint>

#include "Relay/RelayWriter.h"
#include "Sim.h"

namespace Sim {

bool createQueues(const Mem::RootPath& table, const CreateSettings& settings, std::string& error) {
  const SharedMem::EmberId ember{static_cast<std::uint16_t>(::getpid() & 0xFFFF), 0};
  return Relay::RelayWriter::createFiles(table, settings.capacity, ember, error);
}

}  // namespace Sim

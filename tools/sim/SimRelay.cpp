// heron-sim create: the table's two notification-queue files.
#include <unistd.h>

#include <cstdint>
#include <limits>

#include "Relay/RelayWriter.h"
#include "Sim.h"

namespace Sim {

// --capacity N: notifications per queue file (default 1024).
bool createQueues(const Mem::RootPath& table, const Options& options, std::string& error) {
  bool ok = true;
  const unsigned long long capacity = options.number("capacity", 1024, ok);
  if (!ok || capacity > std::numeric_limits<unsigned>::max()) {
    error = "--capacity needs a number of notifications below 2^32";
    return false;
  }
  const SharedMem::EmberId ember{static_cast<std::uint16_t>(::getpid() & 0xFFFF), 0};
  return Relay::RelayWriter::createFiles(table, static_cast<unsigned>(capacity), ember, error);
}

}  // namespace Sim

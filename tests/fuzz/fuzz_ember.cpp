// The `ember` file: the writer's restart identity and heartbeat.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "SharedMem/Ember.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  HeronFuzz::writeTableFile("ember", data, size);
  const Mem::RootPath root(HeronFuzz::tableDir().path());
  SharedMem::EmberHeader header{};
  const SharedMem::LoadStatus status = SharedMem::readEmber(root, header);
  HeronFuzz::NullStream out;
  out << static_cast<int>(status);
  if (status == SharedMem::LoadStatus::Ok) {
    out << header.current << header.writerPid << header.restarts << header.heartbeatMonoNs;
  }
  return 0;
}

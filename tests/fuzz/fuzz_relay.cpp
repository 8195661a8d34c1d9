// The two queue files, split from one input: a 32-bit little-endian length,
// that many bytes of `relay.1`, the rest `relay.2`. Validated, then scanned
// as heron -r does (both tables, then the active one only).
#include <cstddef>
#include <cstdint>
#include <vector>

#include "FuzzSupport.h"
#include "readers/RelayHelperScanner.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::size_t primarySize = HeronFuzz::takeWord(data, size, 4);
  primarySize = primarySize < size ? primarySize : size;
  HeronFuzz::writeTableFile("relay.1", data, primarySize);
  HeronFuzz::writeTableFile("relay.2", data + primarySize, size - primarySize);
  const Mem::RootPath root(HeronFuzz::tableDir().path());
  Heron::RelayHelperScanner relay(HeronFuzz::handler(), root, false);
  relay.reportErrorsTo(nullptr);
  if (!relay.initialize()) {
    return 0;
  }
  HeronFuzz::NullStream out;
  relay.formatIndividualRelayHeader(relay.header(Heron::RelayHelperScanner::PRIMARY), out);
  relay.formatIndividualRelayHeader(relay.header(Heron::RelayHelperScanner::SECONDARY), out);
  relay.scan(out, false);
  relay.scan(out, true);
  return 0;
}

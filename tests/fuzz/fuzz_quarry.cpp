// The `quarry` file (the allocator's header), through the raw reader and the
// utility's region reader of a table that has no region yet.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "Quarry/QuarryReader.h"
#include "model/Model.h"
#include "readers/QuarryHelperScanner.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  HeronFuzz::writeTableFile(Quarry::kQuarryFileName, data, size);
  const Mem::RootPath root(HeronFuzz::tableDir().path());
  HeronFuzz::NullStream out;
  {
    Quarry::NoMapReader reader;
    std::string error;
    Quarry::QuarryHeader header{};
    if (reader.open(root.fullPath(Quarry::kQuarryFileName), error) && reader.copy(header)) {
      out << header.allocations << header.releases << header.bytesInUse;
    }
    out << error;
  }
  Heron::QuarryHelperScanner scanner(HeronFuzz::handler(), root, "/dev/null");
  scanner.watchDeletions(false);
  if (scanner.initialize()) {
    scanner.printStats(true, true);
    Heron::Model::HeaderInfo info;
    scanner.fillHeader(info);
  }
  return 0;
}

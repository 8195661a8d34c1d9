// One `region.<id>` file beside a valid `quarry` file: attached, counted,
// printed and scanned the ways heron does. The file takes the id its header
// names when that is a valid id, so that most inputs get past the name check.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <unordered_set>

#include "FuzzSupport.h"
#include "Quarry/QuarryReader.h"
#include "Quarry/Region.h"
#include "model/Model.h"
#include "readers/QuarryHelperScanner.h"

namespace {

void writeQuarry() {
  Quarry::QuarryHeader header{};
  header.magic = Quarry::QuarryHeader::kMagic;
  header.version = Quarry::QuarryHeader::kVersion;
  header.pageSize = 4096;
  header.maxRegionId = Quarry::QuarryHeader::kMaxRegionId;
  header.nextRegionId = 2;
  header.liveRegions = 1;
  HeronFuzz::writeTableFile(Quarry::kQuarryFileName, reinterpret_cast<const std::uint8_t*>(&header), sizeof header);
}

std::uint32_t regionIdOf(const std::uint8_t* data, std::size_t size) {
  std::uint32_t id = 0;
  if (size >= offsetof(Quarry::RegionHeader, regionId) + sizeof id) {
    std::memcpy(&id, data + offsetof(Quarry::RegionHeader, regionId), sizeof id);
  }
  return id >= 1 && id <= Quarry::QuarryHeader::kMaxRegionId ? id : 1;
}

void readDirectly(const std::string& path, std::uint32_t id) {
  Quarry::RegionScanner region;
  std::string error;
  if (!region.attach(path, id, error)) {
    return;
  }
  Quarry::RegionSnapshot snapshot;
  region.snapshot(snapshot, 16, Quarry::kCopyAttempts, true);
  HeronFuzz::NullStream out;
  out << region.numFreePages() << region.numFreePages(snapshot) << region.usedUnits();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quarryWritten = (writeQuarry(), true);
  (void)quarryWritten;
  const std::uint32_t id = regionIdOf(data, size);
  const std::string name = Quarry::kRegionFilePrefix + std::to_string(id);
  HeronFuzz::writeTableFile(name, data, size);
  const Mem::RootPath root(HeronFuzz::tableDir().path());
  readDirectly(root.fullPath(name), id);
  {
    Heron::QuarryHelperScanner scanner(HeronFuzz::handler(), root, "/dev/null");
    scanner.watchDeletions(false);
    if (scanner.initialize()) {
      scanner.printStats(true, false);
      scanner.scanRegions({}, true);
      Heron::Model::HeaderInfo info;
      scanner.fillHeader(info);
    }
  }
  HeronFuzz::removeTableFile(name);
  return 0;
}

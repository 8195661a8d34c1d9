// heron-sim create: the table's region allocator.
//
// --regions LIST   regions to create, "unitSize x unitCount" separated by
//                  commas, e.g. 64x256,4096x32 (default 64x256,256x128,4096x32)
// --no-regions     create the allocator file only
#include <cstdlib>
#include <string>

#include "Quarry/QuarryWriter.h"
#include "Sim.h"

namespace Sim {

namespace {

constexpr const char* kDefaultRegions = "64x256,256x128,4096x32";

bool parseNumber(const std::string& text, unsigned long& value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 9) {
    return false;
  }
  value = std::strtoul(text.c_str(), nullptr, 10);
  return true;
}

}  // namespace

bool createAllocator(const Mem::RootPath& table, const Options& options, std::string& error) {
  Quarry::QuarryWriter writer(handler(), table);
  if (!writer.create(error)) {
    return false;
  }
  if (options.has("no-regions")) {
    return true;
  }
  const std::string list = options.get("regions", kDefaultRegions);
  std::size_t at = 0;
  while (at <= list.size() && !list.empty()) {
    std::size_t comma = list.find(',', at);
    const std::string item = list.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
    const std::size_t x = item.find('x');
    unsigned long unitSize = 0;
    unsigned long unitCount = 0;
    if (x == std::string::npos || !parseNumber(item.substr(0, x), unitSize) ||
        !parseNumber(item.substr(x + 1), unitCount)) {
      error = "--regions: '" + item + "' is not unitSizexunitCount";
      return false;
    }
    if (writer.createRegion(static_cast<std::uint32_t>(unitSize), static_cast<std::uint32_t>(unitCount), error) == 0) {
      error = "--regions " + item + ": " + error;
      return false;
    }
    if (comma == std::string::npos) {
      break;
    }
    at = comma + 1;
  }
  return true;
}

}  // namespace Sim

// heron-sim create: the table's region allocator and the region list syntax.
#include <cstdlib>
#include <string>

#include "Quarry/Offset.h"
#include "Quarry/QuarryWriter.h"
#include "Sim.h"

namespace Sim {

namespace {

// A decimal number from 1 to `max`; no sign, no base prefix.
bool parseCount(const std::string& text, std::uint64_t max, std::uint32_t& value) {
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const unsigned long long number = std::strtoull(text.c_str(), nullptr, 10);
  if (number < 1 || number > max) {
    return false;
  }
  value = static_cast<std::uint32_t>(number);
  return true;
}

}  // namespace

bool parseRegionList(const std::string& text, std::vector<RegionSpec>& out, std::string& error) {
  out.clear();
  if (text.empty()) {
    return true;
  }
  std::size_t at = 0;
  for (;;) {
    const std::size_t comma = text.find(',', at);
    const std::string item = text.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
    const std::size_t x = item.find('x');
    RegionSpec region;
    if (x == std::string::npos || !parseCount(item.substr(0, x), kMaxUnitSize, region.unitSize) ||
        !parseCount(item.substr(x + 1), Quarry::Offset::kMaxUnitIndex, region.unitCount)) {
      error = "'" + item + "' is not SIZExCOUNT with SIZE 1.." + std::to_string(kMaxUnitSize) + " and COUNT 1.." +
              std::to_string(Quarry::Offset::kMaxUnitIndex);
      return false;
    }
    if (static_cast<std::uint64_t>(region.unitSize) * region.unitCount > kMaxRegionBytes) {
      error = "'" + item + "' is larger than " + std::to_string(kMaxRegionBytes) + " bytes";
      return false;
    }
    out.push_back(region);
    if (comma == std::string::npos) {
      break;
    }
    at = comma + 1;
  }
  if (out.size() > Quarry::Offset::kMaxRegionId) {
    error = "more than " + std::to_string(Quarry::Offset::kMaxRegionId) + " regions";
    return false;
  }
  return true;
}

std::vector<RegionSpec> defaultRegions() {
  std::vector<RegionSpec> regions;
  std::string error;
  parseRegionList(kDefaultRegions, regions, error);
  return regions;
}

bool createAllocator(const Mem::RootPath& table, const CreateSettings& settings, std::string& error) {
  Quarry::QuarryWriter writer(handler(), table);
  if (!writer.create(error)) {
    return false;
  }
  if (!settings.withRegions) {
    return true;
  }
  for (const RegionSpec& region : settings.regions) {
    if (writer.createRegion(region.unitSize, region.unitCount, error) == 0) {
      error = "--regions " + std::to_string(region.unitSize) + "x" + std::to_string(region.unitCount) + ": " + error;
      return false;
    }
  }
  return true;
}

}  // namespace Sim

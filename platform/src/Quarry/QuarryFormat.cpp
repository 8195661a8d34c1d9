// The allocator's file layout, shared by the reader and the writer.
#include "Quarry/QuarryFormat.h"

#include <cstdint>

#include "Beacon/Trace.h"

namespace Quarry {

bool regionLayout(std::uint32_t unitCount, std::uint32_t unitSize, std::uint32_t pageSize, RegionLayout& out) {
  if (pageSize == 0) {
    return false;
  }
  const std::uint64_t page = pageSize;
  const std::uint64_t headerAndBitmap = RegionHeader::kBitmapOffset + (static_cast<std::uint64_t>(unitCount) + 7) / 8;
  out.dataOffset = (headerAndBitmap + page - 1) / page * page;
  const std::uint64_t units = static_cast<std::uint64_t>(unitCount) * unitSize;  // < 2^64: both are 32-bit
  if (units > UINT64_MAX - out.dataOffset - page) {
    return false;
  }
  out.fileSize = (out.dataOffset + units + page - 1) / page * page;
  return true;
}

namespace Region {

std::uint32_t parseRegionId(Beacon::Platform::DebugHandler& handler, const std::string& fileName) {
  static constexpr std::size_t kPrefix = 7;  // "region."
  if (fileName.size() <= kPrefix || fileName.size() > kPrefix + 4 ||
      fileName.compare(0, kPrefix, kRegionFilePrefix) != 0 || fileName[kPrefix] == '0') {
    return 0;
  }
  std::uint32_t id = 0;
  for (std::size_t i = kPrefix; i < fileName.size(); ++i) {
    const char c = fileName[i];
    if (c < '0' || c > '9') {
      return 0;
    }
    id = id * 10 + static_cast<std::uint32_t>(c - '0');
  }
  if (id > QuarryHeader::kMaxRegionId) {
    return 0;
  }
  Beacon::fmtrace(handler, 9, __FILE__, __func__, __LINE__, "Region", "{} is region {}", fileName, id);
  return id;
}

}  // namespace Region

}  // namespace Quarry

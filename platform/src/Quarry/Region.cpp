#include "Quarry/Region.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "Beacon/SharedWord.h"
#include "Beacon/Trace.h"
#include "Beacon/UniqueFd.h"
#include "Beacon/Util.h"
#include "Quarry/Offset.h"

namespace Quarry {

namespace {

// Why `h` does not describe region `expectedId` in a file of `fileSize`
// bytes, or "" when it does. A header that passes puts its bitmap inside
// [0, dataOffset) and its units inside the file.
std::string layoutTrouble(const RegionHeader& h, std::uint32_t expectedId, unsigned long long fileSize) {
  RegionLayout layout;
  if (h.magic != RegionHeader::kMagic || h.version != RegionHeader::kVersion) {
    return "bad magic or version";
  }
  if (h.regionId != expectedId) {
    return "header names region " + std::to_string(h.regionId);
  }
  if (h.bitmapOffset != RegionHeader::kBitmapOffset || h.unitCount > Offset::kMaxUnitIndex ||
      !regionLayout(h.unitCount, h.unitSize, h.pageSize, layout) || h.dataOffset != layout.dataOffset) {
    return "inconsistent layout";
  }
  if (layout.fileSize > fileSize) {
    return "file is " + std::to_string(fileSize) + " bytes, header claims " + std::to_string(layout.fileSize);
  }
  return std::string();
}

}  // namespace

RegionReader::~RegionReader() { unmap(); }

bool RegionReader::attach(const std::string& path, std::uint32_t expectedId, std::string& error,
                          Mem::MapExtent extent) {
  struct stat st {};
  const Beacon::UniqueFd fd(Beacon::Util::openRegularFile(path, error, &st));
  if (!fd.valid()) {
    return false;
  }
  const auto fileSize = static_cast<unsigned long long>(st.st_size);
  if (fileSize < sizeof(RegionHeader)) {
    error = "file is " + std::to_string(fileSize) + " bytes, shorter than a region header";
    return false;
  }
  if (fileSize > SIZE_MAX) {
    error = "file too large to map";
    return false;
  }
  return extent == Mem::MapExtent::Header ? mapHeaderAndBitmap(fd.get(), fileSize, expectedId, error)
                                          : mapWhole(fd.get(), fileSize, expectedId, error);
}

bool RegionReader::mapWhole(int fd, unsigned long long fileSize, std::uint32_t expectedId, std::string& error) {
  if (!map(fd, static_cast<std::size_t>(fileSize), error)) {
    return false;
  }
  // The fixed fields never change once the file is in place; they are
  // copied and checked once here, and only the copy is used afterwards, so
  // later reads stay inside the mapping.
  std::memcpy(&header_, base_, sizeof header_);
  error = layoutTrouble(header_, expectedId, fileSize);
  if (!error.empty()) {
    unmap();
    return false;
  }
  return true;
}

bool RegionReader::mapHeaderAndBitmap(int fd, unsigned long long fileSize, std::uint32_t expectedId,
                                      std::string& error) {
  // The mapping's length comes from the header, so the header is read
  // first; as above, that copy is checked once and the only one used.
  const ssize_t got = ::pread(fd, &header_, sizeof header_, 0);
  if (got != static_cast<ssize_t>(sizeof header_)) {
    error = got < 0 ? std::string("read: ") + std::strerror(errno) : std::string("shorter than a region header");
    return false;
  }
  error = layoutTrouble(header_, expectedId, fileSize);
  // dataOffset is a 32-bit field, at least the 64-byte header (the layout
  // rounds header and bitmap up to a page) and at most the layout's file
  // size, which the file holds: the mapping ends inside the file, after the
  // bitmap, and nothing is added that could overflow.
  return error.empty() && map(fd, header_.dataOffset, error);
}

bool RegionReader::map(int fd, std::size_t length, std::string& error) {
  void* base = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) {
    error = std::string("mmap: ") + std::strerror(errno);
    return false;
  }
  base_ = static_cast<const unsigned char*>(base);
  size_ = length;
  guard_ = Beacon::MappingGuard::Range(base_, size_);
  return true;
}

void RegionReader::unmap() {
  if (base_ != nullptr) {
    guard_.reset();
    ::munmap(const_cast<unsigned char*>(base_), size_);
    base_ = nullptr;
    size_ = 0;
  }
}

void RegionScanner::snapshot(RegionSnapshot& out, unsigned previewBytes, unsigned attempts, bool everyUnit) const {
  const RegionHeader& h = header();
  const RegionHeader& shared = live();
  const std::uint32_t units = h.unitCount;
  const std::uint32_t unitSize = h.unitSize;
  const std::size_t bitmapBytes = (static_cast<std::size_t>(units) + 7) / 8;
  const unsigned preview = previewBytes < unitSize ? previewBytes : unitSize;
  out.previewBytes = preview;
  out.everyUnit = everyUnit;
  out.consistent = false;
  out.attempts = 0;
  out.bitmap.resize(bitmapBytes);
  Beacon::fmassert(preview == 0 || unitsMapped(), __FILE__, __func__, __LINE__, "RegionScanner",
                   "region {}: previews asked of a mapping of its header and bitmap only", h.regionId);
  for (unsigned attempt = 0; attempt < attempts; ++attempt) {
    out.attempts = attempt + 1;
    const std::uint64_t before = Beacon::Shared::load64(&shared, offsetof(RegionHeader, generation));
    const bool last = attempt + 1 == attempts;
    if ((before & 1U) != 0 && !last) {
      ::sched_yield();
      continue;
    }
    out.generation = before;
    out.usedUnits = Beacon::Shared::load32Relaxed(&shared, offsetof(RegionHeader, usedUnits));
    if (bitmapBytes != 0) {  // a region of no units has no bitmap, and data() may be null
      std::memcpy(out.bitmap.data(), base_ + h.bitmapOffset, bitmapBytes);
    }
    out.used.clear();
    out.previews.clear();
    for (std::size_t byte = 0; byte < bitmapBytes; ++byte) {
      const unsigned bits = out.bitmap[byte];
      if (bits == 0) {
        continue;
      }
      for (unsigned bit = 0; bit < 8; ++bit) {
        const auto unit = static_cast<std::uint32_t>(byte * 8 + bit);
        if (unit < units && ((bits >> bit) & 1U) != 0) {
          out.used.push_back(unit);
        }
      }
    }
    if (preview > 0 && everyUnit) {
      out.previews.resize(static_cast<std::size_t>(units) * preview);
      for (std::uint32_t unit = 0; unit < units; ++unit) {
        std::memcpy(out.previews.data() + static_cast<std::size_t>(unit) * preview,
                    base_ + h.dataOffset + static_cast<std::uint64_t>(unit) * unitSize, preview);
      }
    } else if (preview > 0) {
      out.previews.resize(out.used.size() * preview);
      for (std::size_t i = 0; i < out.used.size(); ++i) {
        std::memcpy(out.previews.data() + i * preview,
                    base_ + h.dataOffset + static_cast<std::uint64_t>(out.used[i]) * unitSize, preview);
      }
    }
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    const std::uint64_t after = Beacon::Shared::load64Relaxed(&shared, offsetof(RegionHeader, generation));
    if (after == before && (before & 1U) == 0) {
      out.consistent = true;
      return;
    }
  }
}

std::uint32_t RegionScanner::numFreePages(const RegionSnapshot& snapshot) const {
  const RegionHeader& h = header();
  const std::uint64_t unitSize = h.unitSize;
  const std::uint64_t page = h.pageSize;
  const std::uint64_t area = static_cast<std::uint64_t>(h.unitCount) * unitSize;
  const std::uint64_t pages = (area + page - 1) / page;
  if (unitSize == 0) {
    return static_cast<std::uint32_t>(pages);
  }
  // Used units in ascending order touch ascending page ranges; count each
  // touched page once.
  std::uint64_t touched = 0;
  std::uint64_t nextUntouched = 0;
  for (std::uint32_t unit : snapshot.used) {
    std::uint64_t first = unit * unitSize / page;
    const std::uint64_t last = ((unit + 1) * unitSize - 1) / page;
    if (first < nextUntouched) {
      first = nextUntouched;
    }
    if (first <= last) {
      touched += last - first + 1;
      nextUntouched = last + 1;
    }
  }
  return static_cast<std::uint32_t>(pages - touched);
}

std::uint32_t RegionScanner::numFreePages() const {
  RegionSnapshot copy;
  snapshot(copy, 0, kCopyAttempts);
  return numFreePages(copy);
}

}  // namespace Quarry

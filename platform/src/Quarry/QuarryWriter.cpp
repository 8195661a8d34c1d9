#include "Quarry/QuarryWriter.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Beacon/Clock.h"
#include "Beacon/SharedWord.h"
#include "Beacon/Trace.h"
#include "Beacon/UniqueFd.h"
#include "Quarry/QuarryFormat.h"

namespace Quarry {

namespace {

std::uint32_t systemPageSize() {
  long page = ::sysconf(_SC_PAGESIZE);
  return page > 0 ? static_cast<std::uint32_t>(page) : 4096U;
}

// Shared fields of the mapped headers, one access each; 64-bit ones
// through the 8-byte aligned shared word, so that a 32-bit build stores
// and loads them with one instruction.
void store(std::uint64_t& word, std::uint64_t value) { Beacon::Shared::store64Relaxed(&word, 0, value); }
void store(std::uint32_t& word, std::uint32_t value) { Beacon::Shared::store32Relaxed(&word, 0, value); }
void store(unsigned char& byte, unsigned char value) { __atomic_store_n(&byte, value, __ATOMIC_RELAXED); }
std::uint64_t load(const std::uint64_t& word) { return Beacon::Shared::load64Relaxed(&word, 0); }
std::uint32_t load(const std::uint32_t& word) { return Beacon::Shared::load32Relaxed(&word, 0); }
unsigned char load(const unsigned char& byte) { return __atomic_load_n(&byte, __ATOMIC_RELAXED); }

// Opens the generation window: odd, and no later store becomes visible
// before it.
void beginWindow(std::uint64_t& generation) {
  store(generation, load(generation) + 1);
  __atomic_thread_fence(__ATOMIC_RELEASE);
}

// Closes it: every store made inside is visible before the even value.
void endWindow(std::uint64_t& generation) { Beacon::Shared::store64(&generation, 0, load(generation) + 1); }

}  // namespace

struct QuarryWriter::Mapping {
  std::uint32_t id = 0;
  unsigned char* base = nullptr;
  std::size_t size = 0;
  RegionHeader* header = nullptr;
  std::uint32_t unitCount = 0;
  std::uint32_t unitSize = 0;
  std::uint64_t dataOffset = 0;
  std::uint32_t searchFrom = 0;  // no free unit below this index

  ~Mapping() {
    if (base != nullptr) {
      ::munmap(base, size);
    }
  }
  unsigned char* bitmap() const { return base + RegionHeader::kBitmapOffset; }
  bool used(std::uint32_t unit) const { return (load(bitmap()[unit / 8]) >> (unit % 8) & 1U) != 0; }
  void setUsed(std::uint32_t unit, bool on) {
    unsigned char& byte = bitmap()[unit / 8];
    const auto bit = static_cast<unsigned char>(1U << (unit % 8));
    store(byte, static_cast<unsigned char>(on ? (load(byte) | bit) : (load(byte) & ~bit)));
  }
  unsigned char* unit(std::uint32_t index) const {
    return base + dataOffset + static_cast<std::uint64_t>(index) * unitSize;
  }
};

QuarryWriter::QuarryWriter(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root)
    : Beacon::Debuggable(handler), root_(root), pageSize_(systemPageSize()) {}

QuarryWriter::~QuarryWriter() {
  regions_.clear();
  if (header_ != nullptr) {
    ::munmap(header_, sizeof(QuarryHeader));
  }
}

bool QuarryWriter::mapQuarry(int fd, std::string& error) {
  void* base = ::mmap(nullptr, sizeof(QuarryHeader), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) {
    error = root_.fullPath(kQuarryFileName) + ": mmap: " + std::strerror(errno);
    return false;
  }
  header_ = static_cast<QuarryHeader*>(base);
  return true;
}

bool QuarryWriter::create(std::string& error) {
  const std::string path = root_.fullPath(kQuarryFileName);
  const Beacon::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd.valid()) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  QuarryHeader initial{};
  initial.magic = QuarryHeader::kMagic;
  initial.version = QuarryHeader::kVersion;
  initial.pageSize = pageSize_;
  initial.maxRegionId = QuarryHeader::kMaxRegionId;
  initial.nextRegionId = 1;
  if (::pwrite(fd.get(), &initial, sizeof initial, 0) != static_cast<ssize_t>(sizeof initial)) {
    error = path + ": write: " + std::strerror(errno);
    return false;
  }
  return mapQuarry(fd.get(), error);
}

bool QuarryWriter::open(std::string& error) {
  const std::string path = root_.fullPath(kQuarryFileName);
  {
    // Held only until mapped: the mapping keeps the file, and the region
    // files are opened below.
    const Beacon::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!fd.valid()) {
      error = path + ": " + std::strerror(errno);
      return false;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || st.st_size < static_cast<off_t>(sizeof(QuarryHeader))) {
      error = path + ": shorter than an allocator header";
      return false;
    }
    if (!mapQuarry(fd.get(), error)) {
      return false;
    }
  }
  if (header_->magic != QuarryHeader::kMagic || header_->version != QuarryHeader::kVersion || header_->pageSize == 0) {
    error = path + ": not a region allocator file";
    ::munmap(header_, sizeof(QuarryHeader));
    header_ = nullptr;
    return false;
  }
  pageSize_ = header_->pageSize;
  DIR* dir = ::opendir(root_.path().c_str());
  if (dir != nullptr) {
    while (const struct dirent* entry = ::readdir(dir)) {
      std::uint32_t id = Region::parseRegionId(debugHandler(), entry->d_name);
      if (id != 0) {
        adoptRegion(id);
      }
    }
    ::closedir(dir);
  }
  return true;
}

bool QuarryWriter::adoptRegion(std::uint32_t regionId) {
  const std::string path = root_.fullPath(kRegionFilePrefix + std::to_string(regionId));
  const Beacon::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  if (!fd.valid()) {
    return false;
  }
  struct stat st {};
  auto mapping = std::make_unique<Mapping>();
  if (::fstat(fd.get(), &st) != 0 || st.st_size < static_cast<off_t>(sizeof(RegionHeader))) {
    return false;
  }
  void* base = ::mmap(nullptr, static_cast<std::size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (base == MAP_FAILED) {
    return false;
  }
  mapping->base = static_cast<unsigned char*>(base);
  mapping->size = static_cast<std::size_t>(st.st_size);
  RegionHeader* header = reinterpret_cast<RegionHeader*>(mapping->base);
  RegionLayout layout;
  if (header->magic != RegionHeader::kMagic || header->regionId != regionId ||
      !regionLayout(header->unitCount, header->unitSize, header->pageSize, layout) ||
      header->dataOffset != layout.dataOffset || layout.fileSize > mapping->size || (header->generation & 1U) != 0) {
    Beacon::fmtrace(debugHandler(), 0, __FILE__, __func__, __LINE__, "QuarryWriter", "ignoring unusable region file {}",
                    path);
    return false;
  }
  mapping->id = regionId;
  mapping->header = header;
  mapping->unitCount = header->unitCount;
  mapping->unitSize = header->unitSize;
  mapping->dataOffset = header->dataOffset;
  regions_[regionId] = std::move(mapping);
  return true;
}

void QuarryWriter::beginQuarry() { beginWindow(header_->generation); }
void QuarryWriter::endQuarry() { endWindow(header_->generation); }

std::uint32_t QuarryWriter::freeRegionId() const {
  // An id whose file still exists (another writer's leftover) is skipped.
  std::uint32_t candidate = header_->nextRegionId;
  for (std::uint32_t tries = 0; tries < QuarryHeader::kMaxRegionId; ++tries) {
    if (candidate < 1 || candidate > QuarryHeader::kMaxRegionId) {
      candidate = 1;
    }
    struct stat st {};
    if (regions_.count(candidate) == 0 &&
        ::stat(root_.fullPath(kRegionFilePrefix + std::to_string(candidate)).c_str(), &st) != 0) {
      return candidate;
    }
    ++candidate;
  }
  return 0;
}

std::unique_ptr<QuarryWriter::Mapping> QuarryWriter::mapNewFile(const std::string& temporary, std::size_t size,
                                                                std::string& error) {
  const Beacon::UniqueFd fd(::open(temporary.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd.valid()) {
    error = temporary + ": " + std::strerror(errno);
    return nullptr;
  }
  void* base = MAP_FAILED;
  if (::ftruncate(fd.get(), static_cast<off_t>(size)) == 0) {
    base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  }
  if (base == MAP_FAILED) {
    error = temporary + ": " + std::strerror(errno);
    return nullptr;
  }
  auto mapping = std::make_unique<Mapping>();
  mapping->base = static_cast<unsigned char*>(base);
  mapping->size = size;
  return mapping;
}

std::uint32_t QuarryWriter::createRegion(std::uint32_t unitSize, std::uint32_t unitCount, std::string& error) {
  if (header_ == nullptr) {
    error = "allocator not open";
    return 0;
  }
  if (unitCount == 0 || unitCount > Offset::kMaxUnitIndex) {
    error = "unit count must be 1.." + std::to_string(Offset::kMaxUnitIndex);
    return 0;
  }
  RegionLayout layout;
  if (!regionLayout(unitCount, unitSize, pageSize_, layout) || layout.fileSize > SIZE_MAX) {
    error = "region too large";
    return 0;
  }
  const std::uint32_t id = freeRegionId();
  if (id == 0) {
    error = "no free region id";
    return 0;
  }
  const std::string path = root_.fullPath(kRegionFilePrefix + std::to_string(id));
  const std::string temporary = path + ".new";
  std::unique_ptr<Mapping> mapping = mapNewFile(temporary, static_cast<std::size_t>(layout.fileSize), error);
  if (!mapping) {
    ::unlink(temporary.c_str());
    return 0;
  }
  auto* header = reinterpret_cast<RegionHeader*>(mapping->base);
  header->magic = RegionHeader::kMagic;
  header->version = RegionHeader::kVersion;
  header->unitCount = unitCount;
  header->usedUnits = 0;
  header->unitSize = unitSize;
  header->regionId = id;
  header->pageSize = pageSize_;
  header->generation = 0;
  header->bitmapOffset = RegionHeader::kBitmapOffset;
  header->dataOffset = static_cast<std::uint32_t>(layout.dataOffset);
  header->createdNs = Beacon::nowNs();
  header->reserved = 0;
  mapping->id = id;
  mapping->header = header;
  mapping->unitCount = unitCount;
  mapping->unitSize = unitSize;
  mapping->dataOffset = layout.dataOffset;
  // Readers see the region only once it is whole.
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    error = path + ": " + std::strerror(errno);
    ::unlink(temporary.c_str());
    return 0;
  }
  regions_[id] = std::move(mapping);
  beginQuarry();
  store(header_->nextRegionId, id >= QuarryHeader::kMaxRegionId ? 1U : id + 1);
  store(header_->liveRegions, static_cast<std::uint32_t>(regions_.size()));
  endQuarry();
  return id;
}

bool QuarryWriter::deleteRegion(std::uint32_t regionId) {
  auto it = regions_.find(regionId);
  if (it == regions_.end()) {
    return false;
  }
  const Mapping& mapping = *it->second;
  const std::uint64_t used = load(mapping.header->usedUnits);
  const std::uint64_t bytes = used * mapping.unitSize;
  ::unlink(root_.fullPath(kRegionFilePrefix + std::to_string(regionId)).c_str());
  regions_.erase(it);
  beginQuarry();
  store(header_->releases, load(header_->releases) + used);
  store(header_->bytesInUse, load(header_->bytesInUse) - bytes);
  store(header_->liveRegions, static_cast<std::uint32_t>(regions_.size()));
  endQuarry();
  return true;
}

QuarryWriter::Mapping* QuarryWriter::find(std::uint32_t regionId) const {
  auto it = regions_.find(regionId);
  return it == regions_.end() ? nullptr : it->second.get();
}

std::uint32_t QuarryWriter::allocate(std::uint32_t regionId, const void* data, std::size_t size) {
  Mapping* mapping = find(regionId);
  if (mapping == nullptr || load(mapping->header->usedUnits) >= mapping->unitCount) {
    return Offset::TOMBSTONED;
  }
  std::uint32_t unit = mapping->searchFrom;
  while (unit < mapping->unitCount && mapping->used(unit)) {
    ++unit;
  }
  if (unit >= mapping->unitCount) {
    return Offset::TOMBSTONED;
  }
  const std::uint32_t offset = Offset::encode(regionId, unit);
  if (offset == Offset::TOMBSTONED) {
    return Offset::TOMBSTONED;  // the one unit whose name is the tombstone stays unused
  }
  RegionHeader& header = *mapping->header;
  beginWindow(header.generation);
  unsigned char* payload = mapping->unit(unit);
  const std::size_t copied = size < mapping->unitSize ? size : mapping->unitSize;
  if (copied > 0 && data != nullptr) {
    std::memcpy(payload, data, copied);
  }
  std::memset(payload + copied, 0, mapping->unitSize - copied);
  mapping->setUsed(unit, true);
  store(header.usedUnits, load(header.usedUnits) + 1);
  endWindow(header.generation);
  mapping->searchFrom = unit + 1;

  beginQuarry();
  store(header_->allocations, load(header_->allocations) + 1);
  store(header_->bytesInUse, load(header_->bytesInUse) + mapping->unitSize);
  endQuarry();
  return offset;
}

std::uint32_t QuarryWriter::allocateFitting(const void* data, std::size_t size) {
  Mapping* best = nullptr;
  for (const auto& entry : regions_) {
    Mapping* candidate = entry.second.get();
    if (candidate->unitSize >= size && load(candidate->header->usedUnits) < candidate->unitCount &&
        (best == nullptr || candidate->unitSize < best->unitSize)) {
      best = candidate;
    }
  }
  return best == nullptr ? Offset::TOMBSTONED : allocate(best->id, data, size);
}

bool QuarryWriter::update(std::uint32_t offset, const void* data, std::size_t size) {
  Mapping* mapping = find(Offset::regionId(offset));
  const std::uint32_t unit = Offset::unitIndex(offset);
  if (offset == Offset::TOMBSTONED || mapping == nullptr || unit >= mapping->unitCount || !mapping->used(unit)) {
    return false;
  }
  const std::size_t copied = size < mapping->unitSize ? size : mapping->unitSize;
  beginWindow(mapping->header->generation);
  if (copied > 0) {
    std::memcpy(mapping->unit(unit), data, copied);
  }
  std::memset(mapping->unit(unit) + copied, 0, mapping->unitSize - copied);
  endWindow(mapping->header->generation);
  return true;
}

bool QuarryWriter::release(std::uint32_t offset) {
  Mapping* mapping = find(Offset::regionId(offset));
  const std::uint32_t unit = Offset::unitIndex(offset);
  if (offset == Offset::TOMBSTONED || mapping == nullptr || unit >= mapping->unitCount || !mapping->used(unit)) {
    return false;
  }
  RegionHeader& header = *mapping->header;
  beginWindow(header.generation);
  mapping->setUsed(unit, false);
  store(header.usedUnits, load(header.usedUnits) - 1);
  endWindow(header.generation);
  if (unit < mapping->searchFrom) {
    mapping->searchFrom = unit;
  }
  beginQuarry();
  store(header_->releases, load(header_->releases) + 1);
  store(header_->bytesInUse, load(header_->bytesInUse) - mapping->unitSize);
  endQuarry();
  return true;
}

void* QuarryWriter::payload(std::uint32_t offset) {
  Mapping* mapping = find(Offset::regionId(offset));
  const std::uint32_t unit = Offset::unitIndex(offset);
  if (offset == Offset::TOMBSTONED || mapping == nullptr || unit >= mapping->unitCount || !mapping->used(unit)) {
    return nullptr;
  }
  return mapping->unit(unit);
}

std::vector<std::uint32_t> QuarryWriter::regionIds() const {
  std::vector<std::uint32_t> ids;
  ids.reserve(regions_.size());
  for (const auto& entry : regions_) {
    ids.push_back(entry.first);
  }
  return ids;
}

std::uint32_t QuarryWriter::unitSize(std::uint32_t regionId) const {
  const Mapping* mapping = find(regionId);
  return mapping == nullptr ? 0 : mapping->unitSize;
}

std::uint32_t QuarryWriter::unitCount(std::uint32_t regionId) const {
  const Mapping* mapping = find(regionId);
  return mapping == nullptr ? 0 : mapping->unitCount;
}

std::uint32_t QuarryWriter::usedUnits(std::uint32_t regionId) const {
  const Mapping* mapping = find(regionId);
  return mapping == nullptr ? 0 : load(mapping->header->usedUnits);
}

bool QuarryWriter::isAllocated(std::uint32_t offset) const {
  const Mapping* mapping = find(Offset::regionId(offset));
  const std::uint32_t unit = Offset::unitIndex(offset);
  return offset != Offset::TOMBSTONED && mapping != nullptr && unit < mapping->unitCount && mapping->used(unit);
}

}  // namespace Quarry

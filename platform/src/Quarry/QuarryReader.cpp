#include "Quarry/QuarryReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "Beacon/SharedWord.h"
#include "Beacon/Trace.h"
#include "Beacon/UniqueFd.h"
#include "Beacon/Util.h"
#include "Quarry/Region.h"

namespace Quarry {

// ---------------------------------------------------------------- NoMapReader

NoMapReader::~NoMapReader() {
  if (header_ != nullptr) {
    guard_.reset();
    ::munmap(const_cast<QuarryHeader*>(header_), sizeof(QuarryHeader));
  }
}

bool NoMapReader::open(const std::string& path, std::string& error) {
  struct stat st {};
  const Beacon::UniqueFd fd(Beacon::Util::openRegularFile(path, error, &st));
  if (!fd.valid()) {
    error = path + ": " + error;
    return false;
  }
  if (st.st_size < static_cast<off_t>(sizeof(QuarryHeader))) {
    error = path + ": shorter than an allocator header";
    return false;
  }
  void* base = ::mmap(nullptr, sizeof(QuarryHeader), PROT_READ, MAP_SHARED, fd.get(), 0);
  if (base == MAP_FAILED) {
    error = path + ": mmap: " + std::strerror(errno);
    return false;
  }
  guard_ = Beacon::MappingGuard::Range(base, sizeof(QuarryHeader));
  const auto* header = static_cast<const QuarryHeader*>(base);
  if (header->magic != QuarryHeader::kMagic || header->version != QuarryHeader::kVersion || header->pageSize == 0 ||
      header->maxRegionId != QuarryHeader::kMaxRegionId) {
    error = path + ": not a region allocator file";
    guard_.reset();
    ::munmap(base, sizeof(QuarryHeader));
    return false;
  }
  header_ = header;
  return true;
}

bool NoMapReader::copy(QuarryHeader& out) const {
  for (unsigned attempt = 0; attempt < QuarryScannerBase<NoMapScanner>::kCopyAttempts; ++attempt) {
    const std::uint64_t before = Beacon::Shared::load64(header_, offsetof(QuarryHeader, generation));
    if ((before & 1U) == 0) {
      std::memcpy(&out, header_, sizeof out);
      __atomic_thread_fence(__ATOMIC_ACQUIRE);
      if (Beacon::Shared::load64Relaxed(header_, offsetof(QuarryHeader, generation)) == before) {
        return true;
      }
    }
    ::sched_yield();
  }
  std::memcpy(&out, header_, sizeof out);
  return false;
}

// --------------------------------------------------------------------- Reader

template <typename Scanner>
Reader<Scanner>::Reader(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, const std::string&,
                        Mem::MapExtent regions)
    : Mem::InotifyMgr::Watcher(handler), root_(root), regionRoot_(root), regionExtent_(regions) {
  // The default callback names the constructor that installed it: inside
  // the lambda __func__ would only say "operator()".
  const char* function = __func__;
  onRegionDetached_ = [this, function](std::uint32_t id) {
    Beacon::fmtrace(debugHandler(), 3, __FILE__, function, __LINE__, "QuarryReader", "region {} detached", id);
  };
}

template <typename Scanner>
Reader<Scanner>::~Reader() {
  Beacon::fmtrace(debugHandler(), 3, __FILE__, __func__, __LINE__, "QuarryReader", "detach from {}", root_.path());
  regions_.clear();
  watch_.disable();
  retiredRegions_.reset();
}

template <typename Scanner>
void Reader<Scanner>::notify(const std::string& fileName, unsigned flags) {
  Beacon::fmtrace(debugHandler(), 5, __FILE__, __func__, __LINE__, "QuarryReader", "saw notify of {} flags:{}",
                  fileName, flags);
  ++notificationsSeen_;
  const std::uint32_t regionId = Region::parseRegionId(debugHandler(), std::string(fileName));
  if ((flags & 0x200U) == 0 || regionId == 0) {
    return;
  }
  auto it = regions_.find(regionId);
  if (it == regions_.end()) {
    Beacon::fmtrace(debugHandler(), 5, __FILE__, __func__, __LINE__, "QuarryReader", "saw bogus file: {}", fileName);
    return;
  }
  const std::uint32_t id = it->second->id();
  if (retiredRegions_) {
    retiredRegions_->parked.push_back(std::move(it->second));
  }
  regions_.erase(it);
  ++*detachedCounter_;
  Beacon::fmassert(static_cast<bool>(onRegionDetached_), __FILE__, __func__, __LINE__, "QuarryReader",
                   "bad function call: no onRegionDetached callback");
  onRegionDetached_(id);
  if (retiredRegions_) {
    auto tracked = retiredRegions_->byId.find(regionId);
    if (tracked != retiredRegions_->byId.end()) {
      tracked->second = nullptr;
    }
  }
}

template <typename Scanner>
void Reader<Scanner>::enableRetiredRegions() {
  if (!retiredRegions_) {
    retiredRegions_ = std::make_unique<RetiredRegions>();
    for (const auto& entry : regions_) {
      retiredRegions_->byId[entry.first] = entry.second.get();
    }
  }
}

template <typename Scanner>
std::unique_ptr<RegionScanner> Reader<Scanner>::openRegion(std::uint32_t regionId) {
  auto region = std::make_unique<RegionScanner>();
  std::string error;
  if (!region->attach(regionRoot_.fullPath(kRegionFilePrefix + std::to_string(regionId)), regionId, error,
                      regionExtent_)) {
    if (error != std::strerror(ENOENT)) {  // deleted since the directory was read
      badRegions_.push_back(BadRegion{regionId, error});
      ++counters_.badRegions;
      Beacon::fmtrace(debugHandler(), 0, __FILE__, __func__, __LINE__, "QuarryReader", "region {}: {}", regionId,
                      error);
    }
    return nullptr;
  }
  ++counters_.attached;
  return region;
}

template <typename Scanner>
bool Reader<Scanner>::attachRegion(std::uint32_t regionId) {
  std::unique_ptr<RegionScanner> region = openRegion(regionId);
  if (!region) {
    return false;
  }
  if (retiredRegions_) {
    retiredRegions_->byId[regionId] = region.get();
  }
  regions_[regionId] = std::move(region);
  return true;
}

template <typename Scanner>
bool Reader<Scanner>::listRegionIds(const std::function<void(std::uint32_t)>& found) {
  if (listing_ != nullptr) {
    const std::vector<std::string>* entries = listing_;
    listing_ = nullptr;
    for (const std::string& name : *entries) {
      const std::uint32_t id = Region::parseRegionId(debugHandler(), name);
      if (id != 0) {
        found(id);
      }
    }
    return true;
  }
  DIR* dir = ::opendir(regionRoot_.path().c_str());
  if (dir == nullptr) {
    // Not "no regions": the regions could not be seen.
    listError_ = "cannot list " + Beacon::Util::escapeText(regionRoot_.path()) + ": " + std::strerror(errno);
    return false;
  }
  while (const struct dirent* entry = ::readdir(dir)) {
    const std::uint32_t id = Region::parseRegionId(debugHandler(), entry->d_name);
    if (id != 0) {
      found(id);
    }
  }
  ::closedir(dir);
  return true;
}

namespace {

void sortById(std::vector<BadRegion>& bad) {
  std::sort(bad.begin(), bad.end(), [](const BadRegion& a, const BadRegion& b) { return a.id < b.id; });
}

}  // namespace

template <typename Scanner>
void Reader<Scanner>::attachRegions(const std::unordered_set<unsigned>& regionIds) {
  watch_.poll();
  badRegions_.clear();
  listError_.clear();
  for (unsigned id : regionIds) {
    if (id != 0 && id <= QuarryHeader::kMaxRegionId && regions_.count(id) == 0) {
      attachRegion(id);
    }
  }
  sortById(badRegions_);
}

template <typename Scanner>
void Reader<Scanner>::attachRegions() {
  watch_.poll();
  badRegions_.clear();
  listError_.clear();
  if (!listRegionIds([this](std::uint32_t id) {
        if (regions_.count(id) == 0) {
          attachRegion(id);
        }
      })) {
    return;
  }
  sortById(badRegions_);
}

template <typename Scanner>
void Reader<Scanner>::visitAndReleaseRegions(const std::function<void(const RegionScanner&)>& visit) {
  watch_.poll();
  badRegions_.clear();
  listError_.clear();
  // Holding every mapping at once would make each mmap and munmap dearer
  // (a larger address space to search and tear down) for no gain: a region
  // not attached yet is mapped for its visit only.
  if (!listRegionIds([this, &visit](std::uint32_t id) {
        if (regions_.count(id) != 0) {
          return;  // visited below
        }
        std::unique_ptr<RegionScanner> region = openRegion(id);
        if (region) {
          visit(*region);
          if (retiredRegions_) {
            retiredRegions_->byId[id] = nullptr;
          }
        }
      })) {
    return;
  }
  for (auto& entry : regions_) {
    visit(*entry.second);
    if (retiredRegions_) {
      retiredRegions_->byId[entry.first] = nullptr;
    }
  }
  regions_.clear();
  sortById(badRegions_);
}

// ---------------------------------------------------------- QuarryScannerBase

template <typename Scanner>
QuarryScannerBase<Scanner>::QuarryScannerBase(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root,
                                              const std::string& outputFile, Mem::MapExtent regions)
    : Reader<Scanner>(handler, root, outputFile, regions), outputFile_(outputFile) {}

template <typename Scanner>
QuarryScannerBase<Scanner>::~QuarryScannerBase() = default;

template <typename Scanner>
bool QuarryScannerBase<Scanner>::initialize() {
  if (!this->noMapReader_.isOpen() &&
      !this->noMapReader_.open(this->root_.fullPath(kQuarryFileName), initializeError_)) {
    Beacon::fmtrace(this->debugHandler(), 0, __FILE__, __func__, __LINE__, "QuarryReader", "{}", initializeError_);
    return false;
  }
  if (this->watchDeletions_ && !this->watch_.enabled() && !this->watch_.enable(this->root_.path(), *this)) {
    // Without a watch deletions are only seen by the next directory read.
    Beacon::fmtrace(this->debugHandler(), 0, __FILE__, __func__, __LINE__, "QuarryReader", "cannot watch {}: {}",
                    this->root_.path(), std::strerror(errno));
  }
  return true;
}

namespace {

// The allocator file's counters, as one copy.
void addCounters(const NoMapReader& reader, AllocatorStats& stats) {
  QuarryHeader counters{};
  stats.countersSettled = reader.copy(counters);
  stats.allocations = counters.allocations;
  stats.releases = counters.releases;
}

}  // namespace

template <typename Scanner>
AllocatorStats QuarryScannerBase<Scanner>::readStats() {
  AllocatorStats stats;
  RegionSnapshot copy;
  this->visitAndReleaseRegions(
      [&stats, &copy](const RegionScanner& region) { stats.add(readRegionStats(region, copy, kCopyAttempts)); });
  addCounters(this->noMapReader_, stats);
  return stats;
}

template <typename Scanner>
AllocatorStats QuarryScannerBase<Scanner>::readAttachedStats() const {
  AllocatorStats stats;
  RegionSnapshot copy;
  for (const auto& entry : this->regions_) {
    stats.add(readRegionStats(*entry.second, copy, kCopyAttempts));
  }
  addCounters(this->noMapReader_, stats);
  return stats;
}

template class Reader<NoMapScanner>;
template class QuarryScannerBase<NoMapScanner>;

}  // namespace Quarry

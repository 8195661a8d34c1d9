// The readers the long-running modes keep between samples: one sample of
// 100 tables otherwise opens, maps and unmaps about 3,000 times, which is
// most of its cost. A kept table costs the reads of its mapped headers; its
// files are looked at (one lstat each) only when no watch vouches for them.
#include "CollectKept.h"

#include <sys/stat.h>

#include "Beacon/Platform.h"
#include "Collect.h"
#include "Mem/MapExtent.h"
#include "Mem/RootPath.h"
#include "Quarry/QuarryReader.h"
#include "Quarry/Region.h"

namespace Stat {

namespace {

// The ids of `names` in the directory `dir`; false when one cannot be
// stat'ed (gone, or never there).
bool fileIds(const std::string& dir, const std::vector<std::string>& names, std::vector<FileId>& ids) {
  ids.clear();
  for (const std::string& name : names) {
    struct stat st {};
    if (::lstat((dir + "/" + name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
      return false;
    }
    ids.push_back({static_cast<unsigned long long>(st.st_dev), static_cast<unsigned long long>(st.st_ino),
                   static_cast<long long>(st.st_size),
                   static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec});
  }
  return true;
}

// Both queue headers still valid for their files' sizes, as initialize()
// checked them: a header damaged in place (through a mapping, which leaves
// the file's id as it was) is then reported by a fresh reader.
bool headersValid(const QueueHeaders& headers, const std::vector<FileId>& files) {
  std::string error;
  return headers.primary.validateSize(collectHandler(), static_cast<std::uint64_t>(files[0].size), 0, error) &&
         headers.secondary.validateSize(collectHandler(), static_cast<std::uint64_t>(files[1].size), 0, error);
}

// The allocator file and the region files among the table's entries.
std::vector<std::string> allocatorFiles(const Mem::TableFinder::Listing& listing) {
  std::vector<std::string> names{Quarry::kQuarryFileName};
  const std::string prefix = Quarry::kRegionFilePrefix;
  for (const std::string& name : listing) {
    if (name.compare(0, prefix.size(), prefix) == 0) {
      names.push_back(name);
    }
  }
  return names;
}

}  // namespace

// An allocator reader whose regions stay attached between reads. Only
// their headers and bitmaps are mapped: a whole region kept mapped would
// keep up to sixteen of its pages resident, which the kernel maps around
// the header when it is read. Not in the anonymous namespace: a member of
// KeptReaders::Table, which is not in it either, holds one.
class KeptAllocator : public Quarry::QuarryScannerBase<Quarry::NoMapScanner> {
 public:
  explicit KeptAllocator(const std::string& path)
      : Quarry::QuarryScannerBase<Quarry::NoMapScanner>(collectHandler(), Mem::RootPath(path), std::string(),
                                                        Mem::MapExtent::Header) {
    // Files that change are noticed by their ids, not by a watch.
    watchDeletions(false);
  }

  // False when a file could not be used: then nothing is kept.
  bool attach(const Mem::TableFinder::Listing& listing) {
    if (!initialize()) {
      return false;
    }
    useListing(&listing);
    attachRegions();
    return listError().empty() && badRegions().empty();
  }
};

struct KeptReaders::Table {
  unsigned long long seen = 0;
  // The directory's version (WatchedDirs) this sample, and when each kept
  // reader's files were last found as they were: equal and not 0, the
  // files need no look.
  std::uint64_t version = 0;
  std::uint64_t ownerVersion = 0;
  std::uint64_t queueVersion = 0;
  std::uint64_t allocatorVersion = 0;
  std::vector<FileId> ownerIds;
  std::vector<FileId> ownerSeen;
  std::unique_ptr<Identity> owner;
  std::vector<FileId> queueIds;
  std::vector<FileId> queueSeen;
  std::unique_ptr<QueueReader> queues;
  std::vector<FileId> allocatorIds;
  std::unique_ptr<KeptAllocator> allocator;
};

KeptReaders::KeptReaders() : dirs_(collectHandler()) {}
KeptReaders::~KeptReaders() = default;

void KeptReaders::beginSample() {
  ++sample_;
  dirs_.refresh();
}

void KeptReaders::endSample() {
  for (auto it = tables_.begin(); it != tables_.end();) {
    it = it->second->seen == sample_ ? std::next(it) : tables_.erase(it);
  }
}

KeptReaders::Table& KeptReaders::touch(const std::string& path) {
  std::unique_ptr<Table>& table = tables_[path];
  if (!table) {
    table = std::make_unique<Table>();
  }
  if (table->seen != sample_) {
    table->seen = sample_;
    table->version = dirs_.version(path);
  }
  return *table;
}

namespace {

// Whether a reader kept at `kept` is vouched for by the directory's watch.
bool unchanged(std::uint64_t kept, std::uint64_t now) { return now != 0 && kept == now; }

}  // namespace

bool KeptReaders::owner(const std::string& path, Identity& identity) {
  Table& table = touch(path);
  const bool same = table.owner && unchanged(table.ownerVersion, table.version);
  const bool known = same || fileIds(path, {"owner"}, table.ownerSeen);
  if (!known) {
    table.ownerSeen.clear();
  }
  if (same) {
    table.ownerSeen = table.ownerIds;
  }
  if (known && table.owner && table.ownerSeen == table.ownerIds) {
    table.ownerVersion = table.version;
    const std::string name = identity.name;
    const std::string fullPath = identity.path;
    identity = *table.owner;
    identity.name = name;
    identity.path = fullPath;
    return true;
  }
  table.owner.reset();
  return false;
}

void KeptReaders::keepOwner(const std::string& path, const Identity& identity) {
  Table& table = touch(path);
  if (!table.ownerSeen.empty()) {
    table.ownerIds = table.ownerSeen;
    table.owner = std::make_unique<Identity>(identity);
    table.ownerVersion = table.version;
  }
}

bool KeptReaders::queues(const std::string& path, QueueHeaders& headers) {
  Table& table = touch(path);
  if (table.queues && unchanged(table.queueVersion, table.version)) {
    table.queueSeen = table.queueIds;
  } else if (!fileIds(path, {"relay.1", "relay.2"}, table.queueSeen)) {
    table.queueSeen.clear();
  }
  if (!table.queueSeen.empty() && table.queues && table.queueSeen == table.queueIds) {
    headers = QueueHeaders::of(*table.queues);
    if (headersValid(headers, table.queueSeen)) {
      table.queueVersion = table.version;
      return true;
    }
  }
  table.queues.reset();
  return false;
}

std::unique_ptr<QueueReader> KeptReaders::newQueues(const std::string& path) {
  // A page a file: the slots would cost up to sixteen pages each, mapped
  // around the header by the kernel, for as long as the reader is kept.
  return std::make_unique<QueueReader>(collectHandler(), Mem::RootPath(path), false, Mem::MapExtent::Header);
}

void KeptReaders::keepQueues(const std::string& path, std::unique_ptr<QueueReader> reader) {
  Table& table = touch(path);
  if (!table.queueSeen.empty()) {
    table.queueIds = table.queueSeen;
    table.queues = std::move(reader);
    table.queueVersion = table.version;
  }
}

bool KeptReaders::allocator(const std::string& path, const Mem::TableFinder::Listing& listing,
                            Quarry::AllocatorStats& stats) {
  Table& table = touch(path);
  if (table.allocator && unchanged(table.allocatorVersion, table.version)) {
    stats = table.allocator->readAttachedStats();
    return true;
  }
  std::vector<FileId> now;
  if (!fileIds(path, allocatorFiles(listing), now)) {
    table.allocator.reset();
    return false;
  }
  if (!table.allocator || now != table.allocatorIds) {
    // Ids taken before the files are read: a change after this is seen
    // next time.
    table.allocator = std::make_unique<KeptAllocator>(path);
    table.allocatorIds = now;
    if (!table.allocator->attach(listing)) {
      table.allocator.reset();
      return false;
    }
  }
  table.allocatorVersion = table.version;
  stats = table.allocator->readAttachedStats();
  return true;
}

void KeptReaders::forget(const std::string& path) { tables_.erase(path); }

}  // namespace Stat

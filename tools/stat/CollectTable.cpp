// Reading one table's files for a sample through the runtime's readers:
// the owner file and the ember (pread), the queue reader (both headers,
// mapped read-only) and the region reader (allocator file and region files,
// mapped read-only). What cannot be read becomes the table's file errors.
#include "CollectTable.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Collect.h"
#include "CollectKept.h"
#include "Mem/RootPath.h"
#include "Quarry/QuarryReader.h"
#include "Quarry/Region.h"
#include "Relay/RelayReaderGeneric.h"
#include "SharedMem/Ember.h"
#include "SharedMem/OwnerFile.h"

namespace Stat {

double nsSeconds(std::uint64_t ns) {
  constexpr double kNsPerSecond = 1e9;
  return static_cast<double>(ns) / kNsPerSecond;
}

bool listedType(std::uint32_t type) { return type == SharedMem::Table || type == SharedMem::Archive; }

namespace {

std::string fixedText(const char* field, std::size_t size) { return std::string(field, ::strnlen(field, size)); }

// Why a small header file could not be loaded: asked only once loading
// failed, so the common road costs nothing extra.
std::string fileTrouble(const std::string& path, std::size_t headerSize) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) {
    return std::strerror(errno);
  }
  if (!S_ISREG(st.st_mode)) {
    return "not a regular file";
  }
  if (static_cast<std::size_t>(st.st_size) < headerSize) {
    return std::to_string(st.st_size) + " bytes, shorter than its " + std::to_string(headerSize) + "-byte header";
  }
  return "cannot be read";
}

std::string loadTrouble(SharedMem::LoadStatus status, const std::string& path, std::size_t headerSize) {
  switch (status) {
    case SharedMem::LoadStatus::Corrupt:
      return "bad magic";
    case SharedMem::LoadStatus::Incompatible:
      return "unsupported version";
    default:
      return fileTrouble(path, headerSize);
  }
}

// A region as heron-stat shows it: only the units that both the count and
// the bitmap vouch for are used.
Region regionRow(const Quarry::RegionStats& stats) {
  Region row;
  row.id = stats.id;
  row.entrySize = stats.unitSize;
  row.units = stats.units;
  row.used = stats.confirmedUsed();
  row.freePages = stats.freePages;
  row.consistent = stats.copySettled && stats.countsAgree();
  // A copy that never settled is a busy writer, not evidence of damage.
  if (stats.copySettled && !stats.countsAgree()) {
    row.inconsistency = fmt::format("used count {}, bitmap {}, units {}", stats.usedCount, stats.inBitmap, stats.units);
  }
  return row;
}

// The allocator's figures from a reader used once; each file that cannot
// be used adds a line to `errors`. False when the allocator file itself is
// unusable or the table directory cannot be listed.
bool readAllocatorOnce(const Mem::RootPath& root, const Mem::TableFinder::Listing* listing,
                       Quarry::AllocatorStats& stats, std::vector<std::string>& errors) {
  Quarry::QuarryScannerBase<Quarry::NoMapScanner> reader(collectHandler(), root, std::string());
  // Used for one sample and destroyed: it keeps no watch on the directory.
  reader.watchDeletions(false);
  if (!reader.initialize()) {
    errors.push_back(reader.initializeError());
    return false;
  }
  reader.useListing(listing);
  stats = reader.readStats();
  if (!reader.listError().empty()) {
    errors.push_back(reader.listError());
    return false;
  }
  for (const Quarry::BadRegion& bad : reader.badRegions()) {
    errors.push_back(root.fullPath(Quarry::kRegionFilePrefix + std::to_string(bad.id)) + ": " + bad.reason);
  }
  return true;
}

// Fills `out` from the allocator's figures (the kept readers' when they
// can serve, `kept` not null); the figures stay unknown, not zero, when
// they cannot be read. `listing`: the table directory as the caller has
// just read it, or null.
void readAllocator(const Mem::RootPath& root, const Mem::TableFinder::Listing* listing, Allocator& out,
                   std::vector<std::string>& errors, KeptReaders* kept) {
  Quarry::AllocatorStats stats;
  const bool fromKept = kept != nullptr && listing != nullptr && kept->allocator(root.path(), *listing, stats);
  if (!fromKept && !readAllocatorOnce(root, listing, stats, errors)) {
    return;
  }
  for (const Quarry::RegionStats& region : stats.regions) {
    out.regions.push_back(regionRow(region));
  }
  out.bytes = stats.bytes;
  out.usedBytes = stats.confirmedUsedBytes;
  out.freePages = stats.freePages;
  std::sort(out.regions.begin(), out.regions.end(), [](const Region& a, const Region& b) { return a.id < b.id; });
  for (const Region& row : out.regions) {
    // used/units compared exactly; the lower id wins a tie.
    if (!out.fullest || static_cast<std::uint64_t>(row.used) * out.fullest->units >
                            static_cast<std::uint64_t>(out.fullest->used) * row.units) {
      out.fullest = row;
    }
  }
  out.allocations = stats.allocations;
  out.releases = stats.releases;
  out.known = true;
}

void readOwner(Table& table, KeptReaders* kept) {
  if (kept != nullptr && kept->owner(table.identity.path, table.identity)) {
    return;
  }
  SharedMem::OwnerFile owner(collectHandler(), Mem::RootPath(table.identity.path), false);
  SharedMem::OwnerFile::Header header{};
  if (!owner.header(header)) {
    const std::string path = table.identity.path + "/owner";
    table.fileErrors.push_back(path + ": " + loadTrouble(owner.status(), path, sizeof header));
    return;
  }
  Identity& id = table.identity;
  id.ownerKnown = true;
  id.type = header.sharedMemType;
  id.typeName = fixedText(header.typeName, sizeof header.typeName);
  id.creatorPid = header.ownerPid;
  id.createdSeconds = nsSeconds(header.createdNs);
  id.host = fixedText(header.hostname, sizeof header.hostname);
  if (kept != nullptr) {
    kept->keepOwner(table.identity.path, id);
  }
}

void readEmber(Table& table, const Mem::TableFinder::Listing* listing, const KeptReaders* kept) {
  // No ember: no writer has started on this table yet.
  if (kept != nullptr && listing != nullptr && kept->watched(table.identity.path) &&
      std::find(listing->begin(), listing->end(), "ember") == listing->end()) {
    return;
  }
  SharedMem::EmberHeader ember{};
  const Mem::RootPath root(table.identity.path);
  const SharedMem::LoadStatus status = SharedMem::readEmber(root, ember);
  if (status != SharedMem::LoadStatus::Ok) {
    const std::string path = root.fullPath("ember");
    struct stat st {};
    // No ember: no writer has started on this table yet. Not a damaged file.
    if (status == SharedMem::LoadStatus::NotReady && ::lstat(path.c_str(), &st) != 0 && errno == ENOENT) {
      return;
    }
    table.fileErrors.push_back(path + ": " + loadTrouble(status, path, sizeof ember));
    return;
  }
  Writer& writer = table.writer;
  writer.known = true;
  writer.pid = ember.writerPid;
  writer.emberPid = ember.current.pid;
  writer.instance = ember.current.instanceId;
  writer.restarts = ember.restarts;
  writer.pidNamespace = ember.pidNamespace;
  writer.startedSeconds = nsSeconds(ember.startedNs);
  if (ember.heartbeatMonoNs != 0) {
    const std::uint64_t now = SharedMem::monoNs();
    writer.heartbeatAgeSeconds = now > ember.heartbeatMonoNs ? nsSeconds(now - ember.heartbeatMonoNs) : 0.0;
    writer.monotonicHeartbeat = true;
  } else {
    const std::uint64_t now = SharedMem::nowNs();
    writer.heartbeatAgeSeconds = now > ember.heartbeatNs ? nsSeconds(now - ember.heartbeatNs) : 0.0;
  }
}

// The queues' figures from an initialized reader.
void fillQueues(const QueueHeaders& both, Queues& queues) {
  const QueueReader::Header& primary = both.primary;
  const QueueReader::Header& secondary = both.secondary;
  queues.known = true;
  queues.active = primary.currentTable != 0 ? 2 : 1;
  queues.tableVersion = primary.tableVersion;
  queues.sequence = primary.latestWriterSequence;
  const QueueReader::Header* headers[2] = {&primary, &secondary};
  for (unsigned i = 0; i < 2; ++i) {
    queues.tables[i].capacity = headers[i]->notifications.value;
    queues.tables[i].position = headers[i]->currentPos;
    queues.tables[i].epoch = primary.epoch[i];
  }
  const QueueTable& active = queues.tables[queues.active - 1];
  queues.fillRatio =
      active.capacity == 0 ? 0.0 : static_cast<double>(std::min(active.position, active.capacity)) / active.capacity;
}

void readQueues(Table& table, KeptReaders* kept) {
  QueueHeaders headers;
  if (kept != nullptr && kept->queues(table.identity.path, headers)) {
    fillQueues(headers, table.queues);
    return;
  }
  const Mem::RootPath root(table.identity.path);
  std::unique_ptr<QueueReader> relay = kept != nullptr ? KeptReaders::newQueues(table.identity.path)
                                                       : std::make_unique<QueueReader>(collectHandler(), root, false);
  // The reader's complaint becomes the table's reason instead of reaching
  // the terminal.
  relay->reportErrorsTo(nullptr);
  bool ready = false;
  std::string said;
  try {
    ready = relay->initialize();
    said = relay->lastError();
  } catch (const std::exception& error) {
    said = error.what();
  }
  if (!ready) {
    if (said.empty()) {
      for (const char* file : {"relay.1", "relay.2"}) {
        const std::string path = root.fullPath(file);
        const std::string trouble = fileTrouble(path, QueueReader::kHeaderSize);
        if (trouble != "cannot be read") {
          said = path + ": " + trouble;
          break;
        }
      }
    }
    table.fileErrors.push_back(said.empty() ? root.fullPath("relay.1") + ": cannot be used" : said);
    return;
  }
  fillQueues(QueueHeaders::of(*relay), table.queues);
  if (kept != nullptr) {
    kept->keepQueues(table.identity.path, std::move(relay));
  }
}

}  // namespace

bool readTable(Table& table, const Mem::TableFinder::Listing* listing, KeptReaders* kept) {
  try {
    readOwner(table, kept);
    if (table.identity.ownerKnown && !listedType(table.identity.type)) {
      return false;  // a plain segment or another kind of directory: not a table
    }
    readEmber(table, listing, kept);
    table.readMonotonicSeconds = nsSeconds(SharedMem::monoNs());
    readQueues(table, kept);
    readAllocator(Mem::RootPath(table.identity.path), listing, table.allocator, table.fileErrors, kept);
  } catch (const std::exception& error) {
    table.fileErrors.push_back(table.identity.path + ": " + error.what());
    if (kept != nullptr) {
      kept->forget(table.identity.path);
    }
  }
  return true;
}

}  // namespace Stat

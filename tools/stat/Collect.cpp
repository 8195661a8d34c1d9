// The collectors. Each table is read through the runtime's readers: the
// owner file and the ember (pread), the queue reader (both headers, mapped
// read-only) and the region reader (allocator file and region files, mapped
// read-only); the processes attached come from the runtime's walk of every
// process's maps, made once per sample.
#include "Collect.h"

#include <dirent.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Beacon/Platform.h"
#include "Beacon/ProcPid.h"
#include "Beacon/Util.h"
#include "CollectKept.h"
#include "CollectLiveness.h"
#include "Mem/RootPath.h"
#include "Mem/TableFinder.h"
#include "Quarry/QuarryReader.h"
#include "Quarry/Region.h"
#include "Relay/RelayReaderGeneric.h"
#include "SharedMem/Ember.h"
#include "SharedMem/OwnerFile.h"
#include "SharedMem/TableClients.h"

namespace Stat {

Beacon::Platform::DebugHandler& collectHandler() {
  static std::shared_ptr<Beacon::Platform::DebugHandler> instance =
      Beacon::Platform::getDebugHandler("HeronStat", false);
  return *instance;
}

namespace {

constexpr double kNsPerSecond = 1e9;

Beacon::Platform::DebugHandler& handler() { return collectHandler(); }

double seconds(std::uint64_t ns) { return static_cast<double>(ns) / kNsPerSecond; }

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
  Quarry::QuarryScannerBase<Quarry::NoMapScanner> reader(handler(), root, std::string());
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
  SharedMem::OwnerFile owner(handler(), Mem::RootPath(table.identity.path), false);
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
  id.createdSeconds = seconds(header.createdNs);
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
  writer.startedSeconds = seconds(ember.startedNs);
  if (ember.heartbeatMonoNs != 0) {
    const std::uint64_t now = SharedMem::monoNs();
    writer.heartbeatAgeSeconds = now > ember.heartbeatMonoNs ? seconds(now - ember.heartbeatMonoNs) : 0.0;
    writer.monotonicHeartbeat = true;
  } else {
    const std::uint64_t now = SharedMem::nowNs();
    writer.heartbeatAgeSeconds = now > ember.heartbeatNs ? seconds(now - ember.heartbeatNs) : 0.0;
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
                                                       : std::make_unique<QueueReader>(handler(), root, false);
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

bool listedType(std::uint32_t type) { return type == SharedMem::Table || type == SharedMem::Archive; }

// A root that is missing, not a directory or unreadable is a configuration
// error (a typo in a unit file), not an empty collection.
bool rootListable(const std::string& root, std::string& error) {
  struct stat st {};
  if (::stat(root.c_str(), &st) != 0) {
    error =
        "collection root " + root +
        (errno == ENOENT ? std::string(" does not exist") : " cannot be used: " + std::string(std::strerror(errno)));
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    error = "collection root " + root + " is not a directory";
    return false;
  }
  DIR* dir = ::opendir(root.c_str());
  if (dir == nullptr) {
    error = "collection root " + root + " cannot be listed: " + std::strerror(errno);
    return false;
  }
  ::closedir(dir);
  return true;
}

bool excluded(const std::vector<std::string>& globs, const std::string& name) {
  return std::any_of(globs.begin(), globs.end(),
                     [&name](const std::string& glob) { return ::fnmatch(glob.c_str(), name.c_str(), 0) == 0; });
}

// The tables a sample with an empty EXPR would show: a damaged owner file
// counts, a plain segment does not.
std::size_t countTables(const Mem::OrbRootPath& root) {
  Mem::TableFinder finder(handler(), root);
  finder.findOwned("");
  std::size_t count = 0;
  for (const std::string& name : finder.matches()) {
    SharedMem::OwnerFile owner(handler(), Mem::RootPath(root.fullPath(name)), false);
    SharedMem::OwnerFile::Header header{};
    count += !owner.header(header) || listedType(header.sharedMemType) ? 1 : 0;
  }
  return count;
}

// Reads one table's files; false when the directory is not a table. An
// exception from a reader (out of memory, a remap that failed) makes this
// table broken with its reason instead of failing the whole sample.
bool readTable(Table& table, const Mem::TableFinder::Listing* listing, KeptReaders* kept) {
  try {
    readOwner(table, kept);
    if (table.identity.ownerKnown && !listedType(table.identity.type)) {
      return false;  // a plain segment or another kind of directory: not a table
    }
    readEmber(table, listing, kept);
    table.readMonotonicSeconds = seconds(SharedMem::monoNs());
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

}  // namespace

namespace {

// The tables of a sample as the walk meets them, each path once; each
// table's files are read when it is added.
class TableSet {
 public:
  TableSet(const CollectOptions& options, KeptReaders* kept) : options_(options), kept_(kept) {}

  // `listing`: the table directory as the caller has just read it, or null.
  void add(const std::string& name, const std::string& path, const Mem::TableFinder::Listing* listing) {
    if (excluded(options_.exclude, name) || !paths_.insert(path).second) {
      return;
    }
    Table table;
    table.identity.name = name;
    table.identity.path = path;
    if (readTable(table, listing, kept_)) {
      tables.push_back(std::move(table));
    }
  }

  std::vector<Table> tables;

 private:
  const CollectOptions& options_;
  KeptReaders* kept_;
  std::unordered_set<std::string> paths_;
};

// The devices of the root and of every table directory of the sample: a
// mapping of a file elsewhere is none of theirs, and the walk need not ask
// its name. None when one of them is on a file system whose mappings may
// show another device.
std::optional<std::vector<std::uint64_t>> tableDevices(const std::string& root, const std::vector<Table>& tables,
                                                       const KeptReaders* kept) {
  std::vector<std::uint64_t> devices;
  auto add = [&](const std::string& dir) {
    std::optional<std::uint64_t> device;
    if (kept == nullptr || !kept->device(dir, device)) {
      std::uint64_t read = 0;
      if (SharedMem::mappedDevice(dir, read)) {
        device = read;
      }
    }
    if (device && std::find(devices.begin(), devices.end(), *device) == devices.end()) {
      devices.push_back(*device);
    }
    return device.has_value();
  };
  if (!add(root)) {
    return std::nullopt;
  }
  for (const Table& table : tables) {
    if (!add(table.identity.path)) {
      return std::nullopt;
    }
  }
  return devices;
}

// Tables outside the root that a process maps and EXPR names, by path.
void addOutsideTables(const Sample& sample, const SharedMem::TableMappings& mapped, TableSet& set) {
  std::vector<std::string> outside;
  const std::string prefix = sample.root + "/";
  for (const auto& group : mapped) {
    if (group.first.compare(0, prefix.size(), prefix) != 0 && Mem::TableFinder::nameMatches(sample.expr, group.first)) {
      outside.push_back(group.first);
    }
  }
  std::sort(outside.begin(), outside.end());
  for (const std::string& path : outside) {
    set.add(path, path, nullptr);
  }
}

}  // namespace

Sample collect(const CollectOptions& options, KeptReaders* kept) {
  Sample sample;
  // What this sample does not read again is let go at its end.
  if (kept != nullptr) {
    kept->beginSample();
  }
  const std::uint64_t startMono = SharedMem::monoNs();
  sample.timeSeconds = seconds(SharedMem::nowNs());
  sample.monotonicSeconds = seconds(startMono);

  const Mem::OrbRootPath rootPath(handler(), std::string(), false);
  sample.root = rootPath.path();
  sample.expr = options.expr;
  sample.rootOk = rootListable(sample.root, sample.rootError);
  if (!sample.rootOk) {
    // Nothing to walk: a wrong root is said once, not as "no tables".
    if (kept != nullptr) {
      kept->endSample();
    }
    sample.durationSeconds = seconds(SharedMem::monoNs() - startMono);
    return sample;
  }

  // Each table's files are read as the walk meets it, the regions from the
  // listing the walk has just made: one read of each table directory.
  // Tables are sorted by name at the end.
  TableSet set(options, kept);
  Mem::TableFinder finder(handler(), rootPath);
  if (kept != nullptr) {
    finder.useSource(&kept->directories());
  }
  finder.visitOwned(options.expr.c_str(), [&](const std::string& name, const Mem::TableFinder::Listing* listing) {
    set.add(name, name.front() == '/' ? name : rootPath.fullPath(name), listing);
  });

  // The walk comes after the embers were read: a writer named there that
  // started before the walk is seen mapping its table.
  // Namespaces are looked up only for embers that name another one: one
  // walk of /proc for the sample, made on first need.
  Beacon::Proc::PidNamespaceIndex namespaces(handler());
  SharedMem::TableMappings mapped;
  if (options.walkProcesses) {
    SharedMem::MappingWalk walk;
    if (!options.allRoots) {
      walk.devices = tableDevices(sample.root, set.tables, kept);
    }
    mapped = SharedMem::findTableMappings(walk);
    sample.clientsWalked = true;
    // Inside a container the walk sees its own processes only.
    sample.clientsKnown = seesEveryProcess() && namespaces.own() == Beacon::Proc::kInitialPidNamespace;
    if (options.allRoots) {
      addOutsideTables(sample, mapped, set);
    }
    fillClients(set.tables, mapped, sample.clientsKnown);
  }

  if (kept != nullptr) {
    kept->endSample();
  }
  judgeWriters(set.tables, mapped, namespaces, options.walkProcesses);
  std::sort(set.tables.begin(), set.tables.end(),
            [](const Table& a, const Table& b) { return a.identity.name < b.identity.name; });
  if (set.tables.empty() && !options.expr.empty()) {
    sample.rootTables = countTables(rootPath);
    sample.problems.push_back({Severity::Warning, noMatchText(sample)});
  }
  sample.tables = std::move(set.tables);
  sample.perRegionSeries = options.perRegionSeries;
  sample.durationSeconds = seconds(SharedMem::monoNs() - startMono);
  return sample;
}

Sample probe(const CollectOptions& options) {
  Sample sample;
  const Mem::OrbRootPath rootPath(handler(), std::string(), false);
  sample.root = rootPath.path();
  sample.expr = options.expr;
  sample.rootOk = rootListable(sample.root, sample.rootError);
  if (!sample.rootOk || options.expr.empty()) {
    return sample;
  }
  Mem::TableFinder finder(handler(), rootPath);
  finder.findOwned(options.expr.c_str());
  for (const std::string& name : finder.matches()) {
    if (excluded(options.exclude, name)) {
      continue;
    }
    SharedMem::OwnerFile owner(handler(), Mem::RootPath(rootPath.fullPath(name)), false);
    SharedMem::OwnerFile::Header header{};
    if (!owner.header(header) || listedType(header.sharedMemType)) {
      Table table;
      table.identity.name = name;
      sample.tables.push_back(std::move(table));
    }
  }
  if (sample.tables.empty()) {
    sample.rootTables = countTables(rootPath);
  }
  return sample;
}

std::string noMatchText(const Sample& sample) {
  return fmt::format("no table matches {} under {} ({} table{} there)", sample.expr, sample.root, sample.rootTables,
                     sample.rootTables == 1 ? "" : "s");
}

}  // namespace Stat

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
#include <unordered_map>
#include <unordered_set>

#include "Beacon/Platform.h"
#include "Beacon/ProcPid.h"
#include "Beacon/Util.h"
#include "Mem/RootPath.h"
#include "Mem/TableFinder.h"
#include "Quarry/QuarryReader.h"
#include "Quarry/Region.h"
#include "Relay/RelayReaderGeneric.h"
#include "SharedMem/Ember.h"
#include "SharedMem/OwnerFile.h"
#include "SharedMem/TableClients.h"

namespace Stat {

namespace {

constexpr double kNsPerSecond = 1e9;

using QueueReader = Relay::RelayReaderGeneric<Relay::RelaySlot>;

Beacon::Platform::DebugHandler& handler() {
  static std::shared_ptr<Beacon::Platform::DebugHandler> instance =
      Beacon::Platform::getDebugHandler("HeronStat", false);
  return *instance;
}

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

// Fills `out` from the allocator's figures; each file that cannot be used
// adds a line to `errors`. False when the allocator file itself is unusable
// or the table directory cannot be listed (the figures are unknown, not
// zero). `listing`: the table directory as the caller has just read it, or
// null.
bool readAllocator(const Mem::RootPath& root, const Mem::TableFinder::Listing* listing, Allocator& out,
                   std::vector<std::string>& errors) {
  Quarry::QuarryScannerBase<Quarry::NoMapScanner> reader(handler(), root, std::string());
  // Used for one sample and destroyed: it keeps no watch on the directory.
  reader.watchDeletions(false);
  if (!reader.initialize()) {
    errors.push_back(reader.initializeError());
    return false;
  }
  reader.useListing(listing);
  const Quarry::AllocatorStats stats = reader.readStats();
  if (!reader.listError().empty()) {
    errors.push_back(reader.listError());
    return false;
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
  for (const Quarry::BadRegion& bad : reader.badRegions()) {
    errors.push_back(root.fullPath(Quarry::kRegionFilePrefix + std::to_string(bad.id)) + ": " + bad.reason);
  }
  out.allocations = stats.allocations;
  out.releases = stats.releases;
  out.known = true;
  return true;
}

void readOwner(Table& table) {
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
}

void readEmber(Table& table) {
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

void readQueues(Table& table) {
  const Mem::RootPath root(table.identity.path);
  QueueReader relay(handler(), root, false);
  // The reader's complaint becomes the table's reason instead of reaching
  // the terminal.
  relay.reportErrorsTo(nullptr);
  bool ready = false;
  std::string said;
  try {
    ready = relay.initialize();
    said = relay.lastError();
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
  const QueueReader::Header primary = relay.header(QueueReader::PRIMARY);
  const QueueReader::Header secondary = relay.header(QueueReader::SECONDARY);
  Queues& queues = table.queues;
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

// True when the kernel still has a process with that pid (one we may not
// signal counts too).
bool pidExists(std::uint32_t pid) {
  if (pid == 0 || pid > 0x7FFFFFFFU) {
    return false;
  }
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// Every process's maps can be read only as root or with CAP_SYS_PTRACE.
bool seesEveryProcess() {
  if (::geteuid() == 0) {
    return true;
  }
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 7, "CapEff:") == 0) {
      const unsigned long long caps = std::strtoull(line.c_str() + 7, nullptr, 16);
      return ((caps >> 19) & 1U) != 0;  // CAP_SYS_PTRACE
    }
  }
  return false;
}

// "writer 4711", or for a writer in another PID namespace "writer 1 (pid
// namespace 4026532001, pid 4711 here)": the ember's pid is the writer's own.
std::string writerName(const Writer& writer) {
  if (writer.liveness == Liveness::Process && (writer.hostPid == writer.pid || writer.pidNamespace == 0)) {
    return "writer " + std::to_string(writer.pid);
  }
  std::string text = fmt::format("writer {} (pid namespace {}", writer.pid, writer.pidNamespace);
  if (writer.hostPid != 0) {
    text += fmt::format(", pid {} here", writer.hostPid);
  }
  return text + ")";
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

// A writer in our own PID namespace (or one that predates the field): its
// ember pid is our pid too. A zombie (killed, not yet reaped) is no live
// writer; its status is read only where /proc may be read.
void judgeByPid(Writer& writer, bool readProc) {
  writer.hostPid = writer.pid;
  writer.alive = pidExists(writer.pid) ? Seen::Yes : Seen::No;
  Beacon::Proc::PidStatus status;
  if (writer.alive == Seen::Yes && readProc && Beacon::Proc::readPidStatus(static_cast<int>(writer.pid), status) &&
      status.exited()) {
    writer.alive = Seen::No;
  }
}

// Reads one table's files; false when the directory is not a table. An
// exception from a reader (out of memory, a remap that failed) makes this
// table broken with its reason instead of failing the whole sample.
bool readTable(Table& table, const Mem::TableFinder::Listing* listing) {
  try {
    readOwner(table);
    if (table.identity.ownerKnown && !listedType(table.identity.type)) {
      return false;  // a plain segment or another kind of directory: not a table
    }
    readEmber(table);
    table.readMonotonicSeconds = seconds(SharedMem::monoNs());
    readQueues(table);
    readAllocator(Mem::RootPath(table.identity.path), listing, table.allocator, table.fileErrors);
  } catch (const std::exception& error) {
    table.fileErrors.push_back(table.identity.path + ": " + error.what());
  }
  return true;
}

}  // namespace

void judgeWriter(Writer& writer, Beacon::Proc::PidNamespaceIndex& namespaces, const std::vector<int>* readWrite,
                 bool readProc) {
  writer.liveness = Liveness::Process;
  writer.hostPid = 0;
  writer.alive = Seen::Unknown;
  writer.mapsTable = Seen::Unknown;
  const std::uint64_t ns = writer.pidNamespace;
  if (ns == 0 || ns == namespaces.own()) {
    judgeByPid(writer, readProc);
  } else if (const int found = namespaces.find(ns, writer.pid)) {
    writer.hostPid = static_cast<std::uint32_t>(found);
    writer.alive = Seen::Yes;
  } else if (namespaces.complete() &&
             (!namespaces.processesIn(ns).empty() || namespaces.own() == Beacon::Proc::kInitialPidNamespace)) {
    // Its namespace is in sight without it, or gone: from the initial
    // namespace every process of the machine is in sight.
    writer.alive = Seen::No;
  } else {
    // Out of sight (we run in another container, or may not read every
    // process's namespace): the heartbeat is the only evidence.
    writer.liveness = Liveness::Heartbeat;
    return;
  }
  if (writer.alive == Seen::Yes && readWrite != nullptr) {
    const bool maps =
        std::find(readWrite->begin(), readWrite->end(), static_cast<int>(writer.hostPid)) != readWrite->end();
    writer.mapsTable = maps ? Seen::Yes : Seen::No;
  }
}

// Every table's writer, with the pids the walk saw mapping the table
// read-write where it saw every process.
void judgeWriters(std::vector<Table>& tables, const SharedMem::TableMappings& mapped,
                  Beacon::Proc::PidNamespaceIndex& namespaces, bool readProc) {
  for (Table& table : tables) {
    if (!table.writer.known) {
      continue;
    }
    std::vector<int> readWrite;
    if (table.clients.known) {
      auto found = mapped.find(table.identity.path);
      if (found != mapped.end()) {
        for (const SharedMem::TableMapping& mapping : found->second) {
          if (mapping.readWrite) {
            readWrite.push_back(mapping.pid);
          }
        }
      }
    }
    judgeWriter(table.writer, namespaces, table.clients.known ? &readWrite : nullptr, readProc);
  }
}

namespace {

// The tables of a sample as the walk meets them, each path once; each
// table's files are read when it is added.
class TableSet {
 public:
  explicit TableSet(const CollectOptions& options) : options_(options) {}

  // `listing`: the table directory as the caller has just read it, or null.
  void add(const std::string& name, const std::string& path, const Mem::TableFinder::Listing* listing) {
    if (excluded(options_.exclude, name) || !paths_.insert(path).second) {
      return;
    }
    Table table;
    table.identity.name = name;
    table.identity.path = path;
    if (readTable(table, listing)) {
      tables.push_back(std::move(table));
    }
  }

  std::vector<Table> tables;

 private:
  const CollectOptions& options_;
  std::unordered_set<std::string> paths_;
};

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

// Each table's writer and shadows as the walk saw them; our own process is
// no client.
void fillClients(std::vector<Table>& tables, const SharedMem::TableMappings& mapped, bool complete) {
  const int self = static_cast<int>(::getpid());
  for (Table& table : tables) {
    table.clients.known = complete;
    auto found = mapped.find(table.identity.path);
    if (found == mapped.end()) {
      continue;
    }
    SharedMem::TableClients clients = SharedMem::tableClients(found->second, self);
    table.clients.writers = std::move(clients.writers);
    table.clients.shadows = std::move(clients.shadows);
    std::sort(table.clients.shadows.begin(), table.clients.shadows.end());
  }
}

}  // namespace

Sample collect(const CollectOptions& options) {
  Sample sample;
  const std::uint64_t startMono = SharedMem::monoNs();
  sample.timeSeconds = seconds(SharedMem::nowNs());
  sample.monotonicSeconds = seconds(startMono);

  const Mem::OrbRootPath rootPath(handler(), std::string(), false);
  sample.root = rootPath.path();
  sample.expr = options.expr;
  sample.rootOk = rootListable(sample.root, sample.rootError);
  if (!sample.rootOk) {
    // Nothing to walk: a wrong root is said once, not as "no tables".
    sample.durationSeconds = seconds(SharedMem::monoNs() - startMono);
    return sample;
  }

  // Each table's files are read as the walk meets it, the regions from the
  // listing the walk has just made: one read of each table directory.
  // Tables are sorted by name at the end.
  TableSet set(options);
  Mem::TableFinder finder(handler(), rootPath);
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
    mapped = SharedMem::findTableMappings();
    sample.clientsWalked = true;
    // Inside a container the walk sees its own processes only.
    sample.clientsKnown = seesEveryProcess() && namespaces.own() == Beacon::Proc::kInitialPidNamespace;
    if (options.allRoots) {
      addOutsideTables(sample, mapped, set);
    }
    fillClients(set.tables, mapped, sample.clientsKnown);
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

void deriveRates(const Sample& before, Sample& after) {
  after.intervalSeconds = after.monotonicSeconds - before.monotonicSeconds;
  std::unordered_map<std::string, const Table*> byPath;
  byPath.reserve(before.tables.size());
  for (const Table& table : before.tables) {
    byPath.emplace(table.identity.path, &table);
  }
  for (Table& table : after.tables) {
    auto found = byPath.find(table.identity.path);
    if (found == byPath.end()) {
      continue;
    }
    const Table* earlier = found->second;
    // A rate over a writer's restart would mix two writers' counters.
    const Writer& was = earlier->writer;
    const Writer& is = table.writer;
    if (was.known != is.known || was.emberPid != is.emberPid || was.instance != is.instance) {
      continue;
    }
    const double elapsed = table.readMonotonicSeconds - earlier->readMonotonicSeconds;
    if (elapsed <= 0) {
      continue;
    }
    if (table.queues.known && earlier->queues.known && table.queues.sequence >= earlier->queues.sequence) {
      Queues& queues = table.queues;
      queues.ratePerSecond = static_cast<double>(queues.sequence - earlier->queues.sequence) / elapsed;
      const QueueTable& active = queues.tables[queues.active - 1];
      if (*queues.ratePerSecond > 0) {
        const std::uint32_t left = active.capacity > active.position ? active.capacity - active.position : 0;
        queues.secondsToSwitch = left / *queues.ratePerSecond;
      }
    }
    const Allocator& then = earlier->allocator;
    Allocator& now = table.allocator;
    if (now.known && then.known && now.allocations >= then.allocations && now.releases >= then.releases) {
      now.allocationsPerSecond = static_cast<double>(now.allocations - then.allocations) / elapsed;
      now.releasesPerSecond = static_cast<double>(now.releases - then.releases) / elapsed;
    }
  }
}

void assess(Sample& sample, const Thresholds& thresholds) {
  for (Table& table : sample.tables) {
    table.problems.clear();
    table.state = State::Ok;
    auto raise = [&table](State state) { table.state = std::max(table.state, state); };
    for (const std::string& error : table.fileErrors) {
      table.problems.push_back({Severity::Critical, error});
      raise(State::Broken);
    }
    const Writer& writer = table.writer;
    if (table.keptWithoutWriter()) {
      // Kept without a writer by design.
    } else if (!writer.known) {
      if (table.identity.ownerKnown) {
        table.problems.push_back({Severity::Critical, "no writer has started on this table (no ember)"});
        raise(State::Dead);
      }
    } else if (writer.alive == Seen::No) {
      table.problems.push_back({Severity::Critical, writerName(writer) + " is not running"});
      raise(State::Dead);
    } else if (writer.mapsTable == Seen::No) {
      table.problems.push_back({Severity::Critical, writerName(writer) + " no longer maps the table"});
      raise(State::Dead);
    } else if (writer.heartbeatAgeSeconds && *writer.heartbeatAgeSeconds > thresholds.staleSeconds) {
      std::string text = fmt::format("heartbeat {:.1f} s old (stale after {:g} s)", *writer.heartbeatAgeSeconds,
                                     thresholds.staleSeconds);
      if (writer.liveness == Liveness::Heartbeat) {
        text += "; " + writerName(writer) + " cannot be seen from here";
      }
      table.problems.push_back({Severity::Warning, text});
      raise(State::Stale);
    }
    if (table.allocator.known) {
      const double percent = table.allocator.occupancyRatio() * 100;
      if (thresholds.critAllocPercent > 0 && percent >= thresholds.critAllocPercent) {
        table.problems.push_back({Severity::Critical, fmt::format("allocator {:.0f}% full (critical at {:g}%)", percent,
                                                                  thresholds.critAllocPercent)});
      } else if (percent >= thresholds.warnAllocPercent) {
        table.problems.push_back({Severity::Warning, fmt::format("allocator {:.0f}% full (warning at {:g}%)", percent,
                                                                 thresholds.warnAllocPercent)});
      }
    }
    for (const Region& row : table.allocator.regions) {
      if (!row.inconsistency.empty()) {
        table.problems.push_back({Severity::Warning, fmt::format("region {} of {} is inconsistent: {}", row.id,
                                                                 table.identity.name, row.inconsistency)});
      }
    }
  }
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

const char* stateName(State state) {
  switch (state) {
    case State::Ok:
      return "ok";
    case State::Stale:
      return "stale";
    case State::Dead:
      return "dead";
    case State::Broken:
      return "broken";
  }
  return "broken";
}

const char* livenessName(Liveness liveness) { return liveness == Liveness::Heartbeat ? "heartbeat" : "process"; }

const char* severityName(Severity severity) { return severity == Severity::Critical ? "critical" : "warning"; }

}  // namespace Stat

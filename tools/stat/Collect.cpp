// The collectors: the tables of a sample, found under the root (and, with
// all roots, in what processes map), each read by readTable
// (CollectTable.cpp); the processes attached come from the runtime's walk of
// every process's maps, made once per sample.
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
#include "CollectTable.h"
#include "Mem/RootPath.h"
#include "Mem/TableFinder.h"
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

Beacon::Platform::DebugHandler& handler() { return collectHandler(); }

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
  sample.timeSeconds = nsSeconds(SharedMem::nowNs());
  sample.monotonicSeconds = nsSeconds(startMono);

  const Mem::OrbRootPath rootPath(handler(), std::string(), false);
  sample.root = rootPath.path();
  sample.expr = options.expr;
  sample.rootOk = rootListable(sample.root, sample.rootError);
  if (!sample.rootOk) {
    // Nothing to walk: a wrong root is said once, not as "no tables".
    if (kept != nullptr) {
      kept->endSample();
    }
    sample.durationSeconds = nsSeconds(SharedMem::monoNs() - startMono);
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
  sample.durationSeconds = nsSeconds(SharedMem::monoNs() - startMono);
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

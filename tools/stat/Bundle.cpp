// Reading a bundle: the archive is read once, in order; tables/ is written
// into a private directory (sparse where the copy is zeros) and collected
// like a live root; the manifest's sample supplies what the files cannot.
#include "Bundle.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

#include "Mem/RootPath.h"
#include "Output.h"
#include "Render.h"

namespace Stat {

namespace {

using Json = nlohmann::json;

// A manifest larger than this is not one heron-stat wrote.
constexpr la_int64_t kMaxManifestBytes = 64LL << 20;

int removeTree(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) {
    return 0;
  }
  if (S_ISDIR(st.st_mode)) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
    if (dir) {
      std::vector<std::string> names;
      while (const dirent* entry = ::readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
          names.push_back(name);
        }
      }
      for (const std::string& name : names) {
        removeTree(path + "/" + name);
      }
    }
    return ::rmdir(path.c_str());
  }
  return ::unlink(path.c_str());
}

// "tables/NAME/FILE" split into components, each a plain name: no absolute
// path, no "." or "..", nothing empty. Empty when the path is not that.
std::vector<std::string> safeComponents(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t at = 0;
  while (at <= path.size()) {
    std::size_t end = path.find('/', at);
    if (end == std::string::npos) {
      end = path.size();
    }
    const std::string part = path.substr(at, end - at);
    if (part == "." || part == "..") {
      return {};
    }
    if (!part.empty()) {
      parts.push_back(part);
    } else if (end != path.size() || at == 0) {
      // A doubled or leading slash; a single trailing one (directories) is fine.
      if (!(end == path.size() && !parts.empty())) {
        return {};
      }
    }
    at = end + 1;
  }
  return parts;
}

bool makeDirs(const std::string& base, const std::vector<std::string>& parts, std::size_t count, std::string& error) {
  std::string path = base;
  for (std::size_t i = 0; i < count; ++i) {
    path += "/" + parts[i];
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
      error = std::string("cannot make a directory for it: ") + std::strerror(errno);
      return false;
    }
  }
  return true;
}

bool isZeros(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i) {
    if (bytes[i] != 0) {
      return false;
    }
  }
  return true;
}

// Writes the entry's data to `path` (a new file), leaving holes for zeros.
bool extractFile(archive* reader, const std::string& path, la_int64_t size, std::string& error) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = std::string("cannot extract a file: ") + std::strerror(errno);
    return false;
  }
  bool ok = true;
  for (;;) {
    const void* block = nullptr;
    std::size_t length = 0;
    la_int64_t offset = 0;
    const int status = archive_read_data_block(reader, &block, &length, &offset);
    if (status == ARCHIVE_EOF) {
      break;
    }
    if (status != ARCHIVE_OK && status != ARCHIVE_WARN) {
      error = archive_error_string(reader) != nullptr ? archive_error_string(reader) : "damaged archive";
      ok = false;
      break;
    }
    if (length != 0 && !isZeros(block, length) && ::pwrite(fd, block, length, offset) != static_cast<ssize_t>(length)) {
      error = std::string("cannot extract a file: ") + std::strerror(errno);
      ok = false;
      break;
    }
  }
  if (ok && ::ftruncate(fd, size) != 0) {
    error = std::string("cannot extract a file: ") + std::strerror(errno);
    ok = false;
  }
  ::close(fd);
  return ok;
}

bool readManifest(archive* reader, la_int64_t size, Json& manifest, std::string& error) {
  if (size < 0 || size > kMaxManifestBytes) {
    error = "the manifest is too large";
    return false;
  }
  std::string text(static_cast<std::size_t>(size), '\0');
  if (archive_read_data(reader, text.data(), text.size()) != static_cast<la_ssize_t>(text.size())) {
    error = archive_error_string(reader) != nullptr ? archive_error_string(reader) : "the manifest is cut short";
    return false;
  }
  manifest = Json::parse(text, nullptr, false);
  if (manifest.is_discarded() || !manifest.is_object()) {
    error = "the manifest is not a JSON object";
    return false;
  }
  return true;
}

// One entry: the manifest, a directory or a file of tables/.
bool readEntry(archive* reader, archive_entry* entry, const std::string& into, Json& manifest, bool& sawManifest,
               std::string& error) {
  const char* rawName = archive_entry_pathname(entry);
  const std::string name = rawName != nullptr ? rawName : "";
  const auto type = archive_entry_filetype(entry);
  if (name == kManifestName && type == AE_IFREG) {
    sawManifest = true;
    return readManifest(reader, archive_entry_size(entry), manifest, error);
  }
  const std::vector<std::string> parts = safeComponents(name);
  if (parts.empty() || parts.front() != kTablesDir || (type != AE_IFREG && type != AE_IFDIR)) {
    error = "unexpected entry '" + printable(name) + "'";
    return false;
  }
  if (type == AE_IFDIR) {
    return makeDirs(into, parts, parts.size(), error);
  }
  const la_int64_t size = archive_entry_size(entry);
  if (parts.size() < 2 || size < 0 || !makeDirs(into, parts, parts.size() - 1, error)) {
    error = error.empty() ? "unexpected entry '" + printable(name) + "'" : error;
    return false;
  }
  std::string path = into;
  for (const std::string& part : parts) {
    path += "/" + part;
  }
  return extractFile(reader, path, size, error);
}

bool checkManifest(const Json& manifest, std::string& error) {
  const auto version = manifest.find("format_version");
  if (version == manifest.end() || !version->is_number_integer()) {
    error = "the manifest has no format version";
    return false;
  }
  const auto number = version->get<long long>();
  if (number < 1 || number > kBundleFormatVersion) {
    error = "bundle format version " + std::to_string(number) + " is newer than this heron-stat reads (" +
            std::to_string(kBundleFormatVersion) + ")";
    return false;
  }
  const auto sample = manifest.find("sample");
  if (sample == manifest.end() || !sample->is_object()) {
    error = "the manifest holds no sample";
    return false;
  }
  return true;
}

double number(const Json& object, const char* key, double fallback) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number() ? found->get<double>() : fallback;
}

std::optional<double> optionalNumber(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number() ? std::optional<double>(found->get<double>()) : std::nullopt;
}

std::string text(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

Seen seen(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_boolean()) {
    return Seen::Unknown;
  }
  return found->get<bool>() ? Seen::Yes : Seen::No;
}

std::vector<int> pids(const Json& object, const char* key) {
  std::vector<int> out;
  const auto found = object.find(key);
  if (found != object.end() && found->is_array()) {
    for (const Json& pid : *found) {
      if (pid.is_number_integer()) {
        out.push_back(pid.get<int>());
      }
    }
  }
  return out;
}

const Json& member(const Json& object, const char* key) {
  static const Json kNull;
  const auto found = object.find(key);
  return found != object.end() && found->is_object() ? *found : kNull;
}

void overlayWriter(const Json& live, Writer& writer) {
  if (!live.is_object()) {
    return;
  }
  writer.hostPid = static_cast<std::uint32_t>(number(live, "pid", 0));
  writer.pidNamespace = static_cast<std::uint64_t>(number(live, "pid_namespace", 0));
  writer.liveness =
      text(live, "liveness") == livenessName(Liveness::Heartbeat) ? Liveness::Heartbeat : Liveness::Process;
  writer.heartbeatAgeSeconds = optionalNumber(live, "heartbeat_age_seconds");
  writer.monotonicHeartbeat = text(live, "heartbeat_clock") == "monotonic";
  writer.alive = seen(live, "alive");
  writer.mapsTable = seen(live, "maps_table");
}

void overlayTable(const Json& live, Table& table) {
  table.identity.path = text(live, "path");
  overlayWriter(member(live, "writer"), table.writer);
  const Json& clients = member(live, "clients");
  table.clients.known = clients.is_object() && clients.value("known", false);
  table.clients.writers = pids(clients, "writers");
  table.clients.shadows = pids(clients, "shadows");
  const Json& queues = member(live, "queues");
  if (queues.is_object()) {
    table.queues.ratePerSecond = optionalNumber(queues, "rate_per_second");
    table.queues.secondsToSwitch = optionalNumber(queues, "seconds_to_switch");
  }
  const Json& allocator = member(live, "allocator");
  if (allocator.is_object()) {
    table.allocator.allocationsPerSecond = optionalNumber(allocator, "allocations_per_second");
    table.allocator.releasesPerSecond = optionalNumber(allocator, "releases_per_second");
  }
}

State stateOf(const std::string& name) {
  for (State state : {State::Ok, State::Stale, State::Dead, State::Broken}) {
    if (name == stateName(state)) {
      return state;
    }
  }
  return State::Broken;
}

std::vector<Problem> problemsOf(const Json& object) {
  std::vector<Problem> out;
  const auto found = object.find("problems");
  if (found != object.end() && found->is_array()) {
    for (const Json& entry : *found) {
      if (entry.is_object()) {
        const bool critical = text(entry, "severity") == severityName(Severity::Critical);
        out.push_back({critical ? Severity::Critical : Severity::Warning, text(entry, "text")});
      }
    }
  }
  return out;
}

void ownerOf(const Json& owner, Identity& id) {
  id.ownerKnown = owner.is_object();
  if (id.ownerKnown) {
    id.type = static_cast<std::uint32_t>(number(owner, "type", 0));
    id.typeName = text(owner, "type_name");
    id.creatorPid = static_cast<std::uint32_t>(number(owner, "creator_pid", 0));
    id.createdSeconds = number(owner, "created", 0);
    id.host = text(owner, "host");
  }
}

void writerOf(const Json& live, Writer& writer) {
  writer.known = live.is_object();
  if (!writer.known) {
    return;
  }
  overlayWriter(live, writer);
  writer.pid = static_cast<std::uint32_t>(number(live, "namespace_pid", 0));
  const Json& ember = member(live, "ember");
  writer.emberPid = static_cast<std::uint16_t>(ember.is_object() ? number(ember, "pid", 0) : 0);
  writer.instance = static_cast<std::uint16_t>(ember.is_object() ? number(ember, "instance", 0) : 0);
  writer.restarts = static_cast<std::uint32_t>(number(live, "restarts", 0));
  writer.startedSeconds = number(live, "started", 0);
}

void queuesOf(const Json& live, Queues& queues) {
  queues.known = live.is_object();
  if (!queues.known) {
    return;
  }
  queues.active = number(live, "active", 1) == 2 ? 2 : 1;
  queues.sequence = static_cast<std::uint64_t>(number(live, "sequence", 0));
  queues.tableVersion = static_cast<std::uint32_t>(number(live, "table_version", 0));
  queues.fillRatio = number(live, "fill_ratio", 0);
  const auto sides = live.find("tables");
  for (std::size_t i = 0; sides != live.end() && sides->is_array() && i < 2 && i < sides->size(); ++i) {
    const Json& side = (*sides)[i];
    if (side.is_object()) {
      queues.tables[i] = {static_cast<std::uint32_t>(number(side, "capacity", 0)),
                          static_cast<std::uint32_t>(number(side, "position", 0)),
                          static_cast<std::uint64_t>(number(side, "epoch", 0))};
    }
  }
}

Region regionOf(const Json& row) {
  Region region;
  region.id = static_cast<std::uint32_t>(number(row, "id", 0));
  region.entrySize = static_cast<std::uint32_t>(number(row, "entry_size", 0));
  region.units = static_cast<std::uint32_t>(number(row, "units", 0));
  region.used = static_cast<std::uint32_t>(number(row, "used", 0));
  region.freePages = static_cast<std::uint32_t>(number(row, "free_pages", 0));
  region.consistent = row.value("consistent", true);
  return region;
}

void allocatorOf(const Json& live, Allocator& allocator) {
  allocator.known = live.is_object();
  if (!allocator.known) {
    return;
  }
  allocator.bytes = static_cast<std::uint64_t>(number(live, "bytes", 0));
  allocator.usedBytes = static_cast<std::uint64_t>(number(live, "used_bytes", 0));
  allocator.freePages = static_cast<std::uint64_t>(number(live, "free_pages", 0));
  allocator.allocations = static_cast<std::uint64_t>(number(live, "allocations", 0));
  allocator.releases = static_cast<std::uint64_t>(number(live, "releases", 0));
  const Json& fullest = member(live, "fullest_region");
  if (fullest.is_object()) {
    allocator.fullest = regionOf(fullest);
  }
  const auto rows = live.find("region_list");
  if (rows != live.end() && rows->is_array()) {
    for (const Json& row : *rows) {
      if (row.is_object()) {
        allocator.regions.push_back(regionOf(row));
      }
    }
  }
}

Table tableOf(const Json& live) {
  Table table;
  table.identity.name = text(live, "name");
  ownerOf(member(live, "owner"), table.identity);
  writerOf(member(live, "writer"), table.writer);
  queuesOf(member(live, "queues"), table.queues);
  allocatorOf(member(live, "allocator"), table.allocator);
  overlayTable(live, table);
  table.state = stateOf(text(live, "state"));
  table.problems = problemsOf(live);
  return table;
}

}  // namespace

ScratchDir::~ScratchDir() {
  if (!path_.empty()) {
    removeTree(path_);
  }
}

bool ScratchDir::create(const std::string& root, std::string& error) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/heron-stat.XXXXXX";
  if (insideRoot(pattern, root)) {
    error = "the temporary directory " + printable(pattern) + " lies inside the collection root; set TMPDIR";
    return false;
  }
  if (::mkdtemp(pattern.data()) == nullptr) {
    error = "cannot make a temporary directory: " + std::string(std::strerror(errno));
    return false;
  }
  path_ = pattern;
  return true;
}

RootOverride::RootOverride(const std::string& root) {
  const char* was = std::getenv("HERON_ROOT");
  hadRoot_ = was != nullptr;
  root_ = was != nullptr ? was : "";
  const char* chroot = std::getenv("Q7_CHROOT");
  hadChroot_ = chroot != nullptr;
  chroot_ = chroot != nullptr ? chroot : "";
  ::setenv("HERON_ROOT", root.c_str(), 1);
  ::unsetenv("Q7_CHROOT");
}

RootOverride::~RootOverride() {
  if (hadRoot_) {
    ::setenv("HERON_ROOT", root_.c_str(), 1);
  } else {
    ::unsetenv("HERON_ROOT");
  }
  if (hadChroot_) {
    ::setenv("Q7_CHROOT", chroot_.c_str(), 1);
  }
}

bool overlayLiveSample(const Json& live, const std::string& copiedRoot, Sample& copied, std::string& error) {
  const auto tables = live.find("tables");
  if (!live.is_object() || tables == live.end() || !tables->is_array()) {
    error = "the sample has no table list";
    return false;
  }
  copied.root = text(live, "root");
  copied.timeSeconds = number(live, "time", 0);
  copied.intervalSeconds = number(live, "interval_seconds", 0);
  copied.durationSeconds = number(live, "sample_duration_seconds", 0);
  copied.clientsKnown = live.value("clients_known", false);
  copied.clientsWalked = copied.clientsKnown;
  // About the collection as sampled (an EXPR that matched nothing).
  copied.problems = problemsOf(live);
  std::unordered_map<std::string, const Json*> byName;
  for (const Json& table : *tables) {
    if (table.is_object()) {
      byName.emplace(text(table, "name"), &table);
    }
  }
  for (Table& table : copied.tables) {
    for (std::string& line : table.fileErrors) {
      for (std::size_t at = copiedRoot.empty() ? std::string::npos : line.find(copiedRoot); at != std::string::npos;
           at = line.find(copiedRoot, at)) {
        line.replace(at, copiedRoot.size(), copied.root);
        at += copied.root.size();
      }
    }
    const auto found = byName.find(table.identity.name);
    if (found != byName.end()) {
      overlayTable(*found->second, table);
    } else {
      // Copied but not in the sample: nothing says who used it.
      table.identity.path = copied.root + "/" + table.identity.name;
      table.writer.alive = Seen::Unknown;
      table.writer.mapsTable = Seen::Unknown;
    }
  }
  return true;
}

bool readBundle(const std::string& path, const std::string& into, Json& manifest, std::string& error) {
  std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
  archive_read_support_format_tar(reader.get());
  archive_read_support_filter_zstd(reader.get());
  archive_read_support_filter_none(reader.get());
  if (archive_read_open_filename(reader.get(), path.c_str(), 1 << 16) != ARCHIVE_OK) {
    error = archive_error_string(reader.get()) != nullptr ? archive_error_string(reader.get()) : "cannot open";
    return false;
  }
  bool sawManifest = false;
  archive_entry* entry = nullptr;
  for (;;) {
    const int status = archive_read_next_header(reader.get(), &entry);
    if (status == ARCHIVE_EOF) {
      break;
    }
    if (status != ARCHIVE_OK && status != ARCHIVE_WARN) {
      error = archive_error_string(reader.get()) != nullptr ? archive_error_string(reader.get()) : "damaged archive";
      return false;
    }
    if (!readEntry(reader.get(), entry, into, manifest, sawManifest, error)) {
      return false;
    }
  }
  if (!sawManifest) {
    error = "no manifest.json: not a heron-stat bundle";
    return false;
  }
  return checkManifest(manifest, error);
}

bool fromBundle(const std::string& path, const CollectOptions& options, const Thresholds& thresholds, Sample& sample,
                std::string& error) {
  ScratchDir scratch;
  if (!scratch.create(Mem::OrbRootPath::collectionRoot(), error)) {
    return false;
  }
  Json manifest;
  if (!readBundle(path, scratch.path(), manifest, error)) {
    error = "cannot read the bundle " + printable(path) + ": " + printable(error);
    return false;
  }
  const std::string tables = scratch.path() + "/" + kTablesDir;
  if (::mkdir(tables.c_str(), 0700) != 0 && errno != EEXIST) {
    error = std::string("cannot make a temporary directory: ") + std::strerror(errno);
    return false;
  }
  CollectOptions offline = options;
  offline.walkProcesses = false;
  offline.allRoots = false;
  {
    const RootOverride root(tables);
    sample = collect(offline);
  }
  if (!overlayLiveSample(manifest["sample"], tables, sample, error)) {
    error = "cannot read the bundle " + printable(path) + ": " + error;
    return false;
  }
  if (sample.tables.empty() && !sample.expr.empty()) {
    sample.problems.clear();
    sample.problems.push_back({Severity::Warning, noMatchText(sample)});
  }
  if (!sample.rootOk) {
    sample.rootError = "the bundle's tables cannot be listed";
  }
  assess(sample, thresholds);
  return true;
}

}  // namespace Stat

namespace Stat {

bool sampleFromJson(const std::string& text, const Thresholds& thresholds, Sample& sample, std::string& error) {
  const Json live = Json::parse(text, nullptr, false);
  if (!overlayLiveSample(live, std::string(), sample, error)) {
    return false;
  }
  sample.rootOk = live.value("root_ok", true);
  sample.rootError = live.contains("root_error") && live["root_error"].is_string()
                         ? live["root_error"].get<std::string>()
                         : std::string();
  sample.problems = problemsOf(live);
  for (const Json& entry : live["tables"]) {
    if (entry.is_object()) {
      sample.tables.push_back(tableOf(entry));
    }
  }
  // What assess() says again from the facts is not a reading problem; the
  // rest of a broken table's critical problems were.
  Sample again = sample;
  assess(again, thresholds);
  for (std::size_t i = 0; i < sample.tables.size(); ++i) {
    Table& table = sample.tables[i];
    for (const Problem& problem : table.state == State::Broken ? table.problems : std::vector<Problem>()) {
      const std::vector<Problem>& said = again.tables[i].problems;
      const bool regenerated =
          std::any_of(said.begin(), said.end(), [&](const Problem& p) { return p.text == problem.text; });
      if (problem.severity == Severity::Critical && !regenerated) {
        table.fileErrors.push_back(problem.text);
      }
    }
  }
  return true;
}

}  // namespace Stat

// Which processes are attached to which tables: the walk over the process
// table, the grouping of mappings by table and the who / who-all / what
// reports.
#include "HeronClientScanner.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <string_view>

#include "Beacon/MapsReader.h"
#include "Beacon/Trace.h"
#include "Beacon/UniqueFd.h"
#include "Beacon/Util.h"
#include "Mem/TableFinder.h"
#include "SharedMem/OwnerFile.h"
#include "SharedMem/TableClients.h"
#include "readers/QuarryHelperScanner.h"
#include "readers/RelayHelperScanner.h"

namespace Heron {

namespace {

constexpr const char* kClass = "HeronClientScanner";

// Lines of a maps file are short; longer ones fall back to the heap.
constexpr std::size_t kTokenStackBuffer = 512;

// Reading buffer of a maps file: the kernel hands out large chunks when asked.

// Number of non-empty '/'-separated components of `path`.
unsigned countComponents(const std::string& path) {
  unsigned count = 0;
  bool inComponent = false;
  for (char c : path) {
    if (c == '/') {
      inComponent = false;
    } else if (!inComponent) {
      inComponent = true;
      ++count;
    }
  }
  return count;
}

// The two bytes that mark a writer's mapping.
bool headerComplete(const Model::HeaderInfo& info) {
  constexpr std::uint64_t na = Model::HeaderInfo::kNotAvailable;
  return info.primaryNotifications != na && info.secondaryNotifications != na && info.numRegions != na &&
         info.totalSize != na && info.pagesFree != na && info.occupancyRate != na;
}

}  // namespace

const char* const HeronClientScanner::heronFileTypes[2] = {"relay.1", "ember"};

std::string MmapInfo::toTraceString() const {
  return fmt::format("{}|{}|{}|{}|", pid, procName, permissions, heronFileType);
}

HeronClientScanner::HeronClientScanner(std::ostream* out, const Mem::OrbRootPath& rootPath, const char* tableName,
                                       const std::string& procRoot)
    : Beacon::Debuggable("HeronScanner", false),
      out(out),
      rootPath(rootPath),
      tableName(copyRequiredText(tableName)),
      procRoot(procRoot),
      pidTokenIndex(countComponents(procRoot) + 1) {}

HeronClientScanner::HeronClientScanner(std::ostream* out, const Mem::OrbRootPath& rootPath, const char* tableName)
    : HeronClientScanner(out, rootPath, tableName, "/proc") {}

HeronClientScanner::~HeronClientScanner() = default;

// ---------------------------------------------------------------------------
// Maps-line reading

std::string HeronClientScanner::getToken(const std::string& text, unsigned index, const std::string& delimiters) const {
  char stackBuffer[kTokenStackBuffer];
  std::unique_ptr<char[]> heapBuffer;
  char* buffer = stackBuffer;
  if (text.size() + 1 > sizeof(stackBuffer)) {
    heapBuffer.reset(new char[text.size() + 1]);
    buffer = heapBuffer.get();
  }
  std::memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';

  char* state = nullptr;
  const char* token = strtok_r(buffer, delimiters.c_str(), &state);
  if (token == nullptr) {
    return std::string();
  }
  // Counting from 1; index 0 is never met, so every token is used up.
  unsigned count = 1;
  while (count != index) {
    token = strtok_r(nullptr, delimiters.c_str(), &state);
    if (token == nullptr) {
      return std::string();
    }
    ++count;
  }
  return std::string(token);
}

int HeronClientScanner::getFileType(const std::string& fileName) const {
  for (int code = 0; code < 2; ++code) {
    if (fileName == heronFileTypes[code]) {
      return code;
    }
  }
  return -1;
}

// ---------------------------------------------------------------------------
// Process identity

void HeronClientScanner::warnRunAsRoot() const {
  if (std::getenv("Q7_CHROOT") != nullptr) {
    return;
  }
  if (::getuid() == 0) {
    return;
  }
  std::cout << "You should run this command as root." << std::endl;
}

std::string HeronClientScanner::getProcNameForPid(const std::string& pidText) const {
  char buffer[4096] = {};
  std::string linkPath = fmt::format("{}/{}/exe", procRoot, pidText);
  ssize_t length = ::readlink(linkPath.c_str(), buffer, sizeof(buffer));
  if (length < 0) {
    Beacon::fmtrace(debugHandler(), 5, __FILE__, __func__, __LINE__, kClass, "file {} no longer exists", linkPath);
    return std::string();
  }
  const auto n = static_cast<std::size_t>(length);
  const void* slash = ::memrchr(buffer, '/', n);
  if (slash == nullptr) {
    return std::string(buffer, n);
  }
  const std::size_t p = static_cast<std::size_t>(static_cast<const char*>(slash) - buffer);
  return std::string(buffer + p + 1, n - 1 - p);
}

// ---------------------------------------------------------------------------
// Mapping extraction

namespace {

// How a maps file reaches the extraction: opened by the walk (or found but
// not openable, fd -1), or only named (the single-file members open it).
struct MapsSource {
  const std::string& path;
  bool opened;
  int fd;
};

// The next entry of `directory` and "<directory>/<entry>/maps" in mapsPath
// (stored before anything is tested); nullptr at the end.
const struct dirent* nextMapsCandidate(Beacon::DirNode& directory, std::string& mapsPath) {
  const struct dirent* entry = directory.readEntry();
  if (entry != nullptr) {
    mapsPath.clear();
    fmt::format_to(std::back_inserter(mapsPath), "{}/{}/maps", directory.path(), entry->d_name);
  }
  return entry;
}

// The walk's step: like readNextMmap, the next entry that has a maps file,
// but tested by opening it, so that the file is looked up once. A maps file
// that exists but cannot be opened (another user's process) is returned
// with fd -1, as the existence test would pass it, but only when `traced`:
// untraced, such a process yields nothing, and the test is not made.
// `pidText` gets the entry's name: the pid token of mapsPath.
bool openNextMaps(Beacon::DirNode& directory, std::string& mapsPath, std::string& pidText, int& fd, bool traced) {
  while (const struct dirent* entry = nextMapsCandidate(directory, mapsPath)) {
    fd = ::open(mapsPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      struct stat64 status;
      if (!traced || errno == ENOENT || errno == ENOTDIR || ::stat64(mapsPath.c_str(), &status) != 0) {
        continue;
      }
    }
    pidText.assign(entry->d_name);
    return true;
  }
  return false;
}

// By process: the mappings of the scanner's own two files, compared by full
// path, appended to one list.
class ProcessForm {
 public:
  ProcessForm(const Beacon::Platform::DebugHandler& handler, const Mem::OrbRootPath& rootPath,
              std::vector<MmapInfo>& out)
      : handler_(handler),
        rootPath_(rootPath),
        targetPaths_{rootPath.fullPath(HeronClientScanner::heronFileTypes[0]),
                     rootPath.fullPath(HeronClientScanner::heronFileTypes[1])},
        out_(out) {}

  void traceStart(const std::string& mapsPath) const {
    if (handler_.enabled(5)) {
      Beacon::fmtrace(handler_, 5, __FILE__, __func__, __LINE__, kClass,
                      "Extracting mmap info for rootpath: {}, filePath: {}", rootPath_.path(), mapsPath);
    }
  }
  // The file-type code of a mapped path; -1 when it is not one of ours.
  int classify(const std::string& region, std::size_t& /*slash*/) const {
    for (int code = 0; code < 2; ++code) {
      if (region == targetPaths_[code]) {
        return code;
      }
    }
    return -1;
  }
  void add(int pid, const std::string& procName, std::string permissions, int code, const std::string& /*region*/,
           std::size_t /*slash*/) {
    out_.emplace_back(pid, procName, std::move(permissions), HeronClientScanner::heronFileTypes[code]);
    if (handler_.enabled(9)) {
      Beacon::fmtrace(handler_, 9, __FILE__, __func__, __LINE__, kClass, "Added: {}", out_.back().toTraceString());
    }
  }

 private:
  const Beacon::Platform::DebugHandler& handler_;
  const Mem::OrbRootPath& rootPath_;
  const std::string targetPaths_[2];
  std::vector<MmapInfo>& out_;
};

// By table: the mappings of any "relay.1" or "ember", grouped by the
// directory that holds the file.
class TableForm {
 public:
  TableForm(const Beacon::Platform::DebugHandler& handler, const Mem::OrbRootPath& rootPath,
            HeronClientScanner::TableToInfoMap& tables)
      : handler_(handler), rootPath_(rootPath), tables_(tables) {}

  void traceStart(const std::string& mapsPath) const {
    if (handler_.enabled(5)) {
      Beacon::fmtrace(handler_, 5, __FILE__, __func__, __LINE__, kClass,
                      "Extracting mmap info by table for rootpath: {}, filePath: {}", rootPath_.path(), mapsPath);
    }
  }
  // The classification of getFileType, on the last path component, in place.
  int classify(const std::string& region, std::size_t& slash) const {
    slash = region.rfind('/');
    if (slash == std::string::npos) {
      return -1;
    }
    for (int code = 0; code < 2; ++code) {
      if (region.compare(slash + 1, std::string::npos, HeronClientScanner::heronFileTypes[code]) == 0) {
        return code;
      }
    }
    return -1;
  }
  void add(int pid, const std::string& procName, std::string permissions, int code, const std::string& region,
           std::size_t slash) {
    MmapInfo info(pid, procName, std::move(permissions), HeronClientScanner::heronFileTypes[code]);
    if (handler_.enabled(9)) {
      Beacon::fmtrace(handler_, 9, __FILE__, __func__, __LINE__, kClass, "adding to map: {}", info.toTraceString());
    }
    tables_[region.substr(0, slash)].push_back(std::move(info));
  }

 private:
  const Beacon::Platform::DebugHandler& handler_;
  const Mem::OrbRootPath& rootPath_;
  HeronClientScanner::TableToInfoMap& tables_;
};

// One process's maps file, for either form. While traces are on, the steps
// run in their documented order (the process name first, every line traced);
// otherwise only lines that can name a heron file are tokenized and the
// name is read from the exe link at the first line that names one, so that
// processes without heron mappings cost one open and the reads of their
// maps file.
template <typename Form>
void extractProcess(const HeronClientScanner& scanner, Beacon::Proc::MapsReader& reader, Form& form,
                    const std::string& pidText, const MapsSource& source) {
  const Beacon::Platform::DebugHandler& handler = scanner.debugHandler();
  // The line callback below is a lambda; its traces name this function.
  const char* const function = __func__;
  form.traceStart(source.path);
  Beacon::UniqueFd opened(source.opened ? source.fd : -1);
  // errno is not cleared on purpose: a failure left by the directory walk
  // drops a non-numeric entry that follows it.
  const long pid = std::strtol(pidText.c_str(), nullptr, 10);
  if (pid == 0 && errno != 0) {
    return;
  }
  const bool traced = handler.enabled(5) || handler.enabled(9);
  std::string procName;
  bool named = false;
  if (traced) {
    procName = scanner.getProcNameForPid(pidText);
    named = true;
    if (procName.empty()) {
      return;
    }
  }
  Beacon::UniqueFd ownOpen(source.opened ? -1 : ::open(source.path.c_str(), O_RDONLY | O_CLOEXEC));
  const int fd = source.opened ? opened.get() : ownOpen.get();
  if (fd < 0) {
    Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, kClass, "file {} no longer exists", source.path);
    return;
  }
  std::string& line = reader.line();
  const Beacon::Proc::MapsReader::Result result =
      reader.forEachLine(fd, handler.enabled(9), [&](std::string_view text) {
        line.assign(text.data(), text.size());
        const std::string region = scanner.getToken(line, 6, " ");
        if (region.empty()) {
          return true;
        }
        Beacon::fmtrace(handler, 9, __FILE__, function, __LINE__, kClass, "mmapRegion: {}", region);
        std::size_t slash = 0;
        const int code = form.classify(region, slash);
        if (code < 0) {
          return true;
        }
        if (!named) {
          procName = scanner.getProcNameForPid(pidText);
          named = true;
        }
        if (procName.empty()) {
          return false;  // gone, or no name to show: the process contributes nothing
        }
        Beacon::fmtrace(handler, 9, __FILE__, function, __LINE__, kClass, "heronFileType: {}",
                        HeronClientScanner::heronFileTypes[code]);
        std::string permissions = scanner.getToken(line, 2, " ");
        Beacon::fmassert(!permissions.empty(), __FILE__, function, __LINE__, kClass, "!permissions.empty()");
        form.add(static_cast<int>(pid), procName, std::move(permissions), code, region, slash);
        return true;
      });
  if (result == Beacon::Proc::MapsReader::Result::ReadFailed) {
    Beacon::fmtrace(handler, 0, __FILE__, __func__, __LINE__, kClass,
                    "file {} error: eofbit: {} failbit: {} badbit: {}", source.path, false, true, true);
  }
}

// Every process of the process table at `procRoot`, in directory order.
template <typename Form>
void walkProcesses(const HeronClientScanner& scanner, const std::string& procRoot, Form& form) {
  Beacon::DirNode directory(scanner.debugHandler(), procRoot);
  Beacon::fmassert(directory.isOpen(), __FILE__, __func__, __LINE__, kClass, "Couldn't open /proc");
  Beacon::Proc::MapsReader reader;
  std::string mapsPath;
  std::string pidText;
  int fd = -1;
  // The same test as extractProcess makes: only a traced walk says anything
  // of a maps file it cannot open.
  const Beacon::Platform::DebugHandler& handler = scanner.debugHandler();
  const bool traced = handler.enabled(5) || handler.enabled(9);
  while (openNextMaps(directory, mapsPath, pidText, fd, traced)) {
    extractProcess(scanner, reader, form, pidText, MapsSource{mapsPath, true, fd});
  }
}

}  // namespace

bool HeronClientScanner::readNextMmap(Beacon::DirNode& directory, std::string& mapsPath) const {
  while (nextMapsCandidate(directory, mapsPath) != nullptr) {
    struct stat64 status;
    if (::stat64(mapsPath.c_str(), &status) == 0) {
      return true;
    }
  }
  return false;
}

void HeronClientScanner::extractMmapInfo(const std::string& mapsPath, std::vector<MmapInfo>& out) const {
  Beacon::Proc::MapsReader reader;
  ProcessForm form(debugHandler(), rootPath, out);
  extractProcess(*this, reader, form, getToken(mapsPath, pidTokenIndex, "/"), MapsSource{mapsPath, false, -1});
}

void HeronClientScanner::extractMmapInfo(std::vector<MmapInfo>& out) const {
  Beacon::fmtrace(debugHandler(), 5, __FILE__, __func__, __LINE__, kClass,
                  "Extracting mmap info for rootpath: {} traversing /proc", rootPath.path());
  ProcessForm form(debugHandler(), rootPath, out);
  walkProcesses(*this, procRoot, form);
}

void HeronClientScanner::extractMmapInfoByTable(const std::string& mapsPath, TableToInfoMap& tables) const {
  Beacon::Proc::MapsReader reader;
  TableForm form(debugHandler(), rootPath, tables);
  extractProcess(*this, reader, form, getToken(mapsPath, pidTokenIndex, "/"), MapsSource{mapsPath, false, -1});
}

HeronClientScanner::TableToInfoMap HeronClientScanner::extractMmapInfoByTable() const {
  Beacon::fmtrace(debugHandler(), 5, __FILE__, __func__, __LINE__, kClass,
                  "Extracting mmap info by table for rootpath: {} traversing /proc", rootPath.path());
  TableToInfoMap tables;
  tables.max_load_factor(1.0F);
  TableForm form(debugHandler(), rootPath, tables);
  walkProcesses(*this, procRoot, form);
  return tables;
}

// ---------------------------------------------------------------------------
// Categorisation and command names

bool HeronClientScanner::categorizeClient(const MmapInfo& info, Model::HeronTable& table, bool& writerFound,
                                          std::unordered_set<int>& shadowPids) const {
  const Beacon::Platform::DebugHandler& handler = debugHandler();
  if (info.permissions.empty() || info.procName.empty() || info.heronFileType.empty()) {
    if (handler.enabled(0)) {
      std::string record = fmt::format("{}|{}|{}|{}|", info.pid, info.procName, info.permissions, info.heronFileType);
      Beacon::fmtrace(handler, 0, __FILE__, __func__, __LINE__, kClass, "Failed to tokenize: {}", record);
    }
    return true;
  }
  if (SharedMem::mapsForWriting(info.permissions)) {
    if (!writerFound) {
      Beacon::fmtrace(handler, 9, __FILE__, __func__, __LINE__, kClass, "adding writer: {}-{}", info.procName,
                      info.pid);
      writerFound = true;
      table.clients.at(Writer).emplace_back(info.pid, info.procName);
      return false;
    }
    Beacon::fmtrace(handler, 9, __FILE__, __func__, __LINE__, kClass,
                    "Trying to add writer, but theres already a writer in clientList");
    return false;
  }
  if (shadowPids.count(info.pid) != 0) {
    Beacon::fmtrace(handler, 9, __FILE__, __func__, __LINE__, kClass, "pid ({}) is already categorized as shadow",
                    info.pid);
    return false;
  }
  if (info.heronFileType != heronFileTypes[0] && info.heronFileType != heronFileTypes[1]) {
    Beacon::fmtrace(handler, 9, __FILE__, __func__, __LINE__, kClass, "Unexpected heron file {}", info.heronFileType);
    return true;
  }
  Beacon::fmtrace(handler, 9, __FILE__, __func__, __LINE__, kClass, "adding a reader of some type: {}-{}",
                  info.procName, info.pid);
  shadowPids.insert(info.pid);
  table.clients.at(Shadow).emplace_back(info.pid, info.procName);
  return false;
}

void HeronClientScanner::doPopulateCommandNames(Model::HeronClientList& clients,
                                                std::unordered_map<int, std::string>& commandCache) const {
  for (Model::HeronClient& client : clients) {
    auto cached = commandCache.find(client.pid);
    std::string command;
    if (cached != commandCache.end()) {
      command = cached->second;
      Beacon::fmtrace(debugHandler(), 5, __FILE__, __func__, __LINE__, kClass, "Found command {} in cache for {}",
                      command, client.pid);
    } else {
      command = Beacon::Util::readPidCmdline(debugHandler(), client.pid, procRoot);
      const std::size_t blank = command.find(' ');
      if (blank != std::string::npos) {
        command.erase(blank);
      }
      const std::size_t slash = command.rfind('/');
      if (slash != std::string::npos) {
        command.erase(0, slash + 1);
      }
      Beacon::fmtrace(debugHandler(), 5, __FILE__, __func__, __LINE__, kClass, "Extracted command {} for pid {}",
                      command, client.pid);
      commandCache.emplace(client.pid, command);
    }
    client.command = command;
  }
}

// ---------------------------------------------------------------------------
// Header info

namespace {

// The header of the table whose directory `tableRoot` names; its region
// files are taken from `listing` when the caller has just read the
// directory.
void headerInfoAt(const HeronClientScanner& scanner, const Mem::RootPath& tableRoot, Model::HeronTable& table,
                  const Mem::TableFinder::Listing* listing = nullptr) {
  QuarryHelperScanner quarry(scanner.debugHandler(), tableRoot, std::string());
  // The capacity summary lists the directory and holds no region after it:
  // no deletion can concern it, so no watch is added for it.
  quarry.watchDeletions(false);
  quarry.useListing(listing);
  RelayHelperScanner relay(scanner.debugHandler(), tableRoot, false);
  scanner.populateHeronTableHeaderInfo(quarry, relay, table);
}

}  // namespace

void HeronClientScanner::getHeaderInfo(const std::string& tablePath, Model::HeronTable& table) const {
  Mem::OrbRootPath tableRoot(debugHandler(), std::string(tablePath), false);
  headerInfoAt(*this, tableRoot, table);
}

void HeronClientScanner::populateHeronTableHeaderInfo(QuarryHelperScanner& quarry, RelayHelperScanner& relay,
                                                      Model::HeronTable& table) const {
  Model::HeaderInfo local;
  if (!quarry.initialize()) {
    std::cerr << "cannot populate heron table from quarry reader" << std::endl;
  } else {
    quarry.fillHeader(local);
  }
  if (relay.initialize()) {
    const RelayHelperScanner::Header primary = relay.header(RelayHelperScanner::PRIMARY);
    const RelayHelperScanner::Header secondary = relay.header(RelayHelperScanner::SECONDARY);
    local.primaryNotifications = primary.notifications.value;
    local.secondaryNotifications = secondary.notifications.value;
  } else {
    std::cerr << "cannot populate heron table from relay reader" << std::endl;
  }
  table.headerInfo.primaryNotifications = local.primaryNotifications;
  table.headerInfo.secondaryNotifications = local.secondaryNotifications;
  table.headerInfo.numRegions = local.numRegions;
  table.headerInfo.totalSize = local.totalSize;
  table.headerInfo.pagesFree = local.pagesFree;
  table.headerInfo.occupancyRate = local.occupancyRate;
}

// ---------------------------------------------------------------------------
// Queries

namespace {

// One table's clients from its mappings, in order: each record traced and
// categorised (1 when one cannot be), then the command names of the writer
// and the shadows from one cache, the header read through `headerName`, and
// the clients sorted.
int populateTable(const HeronClientScanner& scanner, const std::vector<MmapInfo>& mappings,
                  const std::string& headerName, Model::HeronTable& table) {
  const Beacon::Platform::DebugHandler& handler = scanner.debugHandler();
  bool writerFound = false;
  std::unordered_set<int> shadowPids;
  for (const MmapInfo& info : mappings) {
    if (handler.enabled(5)) {
      Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, kClass, "{}|{}|{}|{}|", info.pid, info.procName,
                      info.permissions, info.heronFileType);
    }
    if (scanner.categorizeClient(info, table, writerFound, shadowPids)) {
      return 1;
    }
  }
  std::unordered_map<int, std::string> commandCache;
  scanner.doPopulateCommandNames(table.clients.at(Writer), commandCache);
  scanner.doPopulateCommandNames(table.clients.at(Shadow), commandCache);
  scanner.getHeaderInfo(headerName, table);
  table.sortClients();
  return 0;
}

}  // namespace

int HeronClientScanner::getClients(Model::HeronTable& table) const {
  warnRunAsRoot();
  table = Model::HeronTable(rootPath.path());
  std::vector<MmapInfo> mappings;
  extractMmapInfo(mappings);
  return populateTable(*this, mappings, tableName, table);
}

int HeronClientScanner::getAllClients(std::set<Model::HeronTable>& tables) const {
  const Beacon::Platform::DebugHandler& handler = debugHandler();
  const TableToInfoMap grouped = extractMmapInfoByTable();
  const std::string& root = rootPath.path();
  for (const auto& group : grouped) {
    const std::string& path = group.first;
    const std::vector<MmapInfo>& mappings = group.second;
    Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, kClass, "Analyzing heron {} with mmapInfo.size: {}", path,
                    mappings.size());
    std::string name;
    // Deliberate: the root is looked for anywhere in the path, not only as
    // its prefix, and the name is what follows its length from the front.
    if (path.find(root) != std::string::npos) {
      name = path.substr(root.size() + 1);
    } else {
      Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, kClass,
                      "Heron table:{} created in a different directory, current rootPath:{}. Header information "
                      "will not be extracted.",
                      path, root);
      name = path;
    }
    unsigned type;
    {
      Mem::OrbRootPath tableRoot(debugHandler(), name, false);
      SharedMem::OwnerFile owner(debugHandler(), tableRoot, false);
      type = static_cast<unsigned>(owner.sharedMemType());
    }
    Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, kClass, "SharedMem table:{} lookup found table type:{}",
                    name, type);
    // Deliberate: types 0 and 2 both go on (bit 1 masked off); every other
    // type is skipped without a message.
    if ((type & ~2U) != 0) {
      continue;
    }
    Model::HeronTable table(name);
    if (populateTable(*this, mappings, name, table) != 0) {
      return 1;
    }
    tables.insert(std::move(table));
  }
  return 0;
}

int HeronClientScanner::addClientlessHerons(std::set<Model::HeronTable>& tables) const {
  const Beacon::Platform::DebugHandler& handler = debugHandler();
  Mem::TableFinder finder(debugHandler(), rootPath);
  Beacon::fmtrace(handler, 9, __FILE__, __func__, __LINE__, kClass, "Determining clientless herons");
  // The finder lists directories under the root that are not symlinks. When
  // the root is the collection root (canonical), a name resolved under it is
  // the root's path and the name as they stand, so the path need not be
  // walked again for every table, and the directory the finder has just
  // read is the table's: its region files are taken from that listing.
  const bool rootIsCollection = rootPath.path() == Mem::OrbRootPath::collectionRoot();
  // Each table is read as the walk meets it, so that the listing is fresh;
  // the set orders them.
  const char* const function = __func__;
  finder.visit("", SharedMem::Table, [&](const std::string& name, const Mem::TableFinder::Listing* entries) {
    Beacon::fmtrace(handler, 9, __FILE__, function, __LINE__, kClass, "Looking for {} in tables", name);
    Model::HeronTable table(name);
    if (tables.count(table) != 0) {
      return;
    }
    if (rootIsCollection) {
      headerInfoAt(*this, Mem::RootPath(rootPath.fullPath(name)), table, entries);
    } else {
      getHeaderInfo(name, table);
    }
    if (!headerComplete(table.headerInfo)) {
      Beacon::fmtrace(handler, 5, __FILE__, function, __LINE__, kClass,
                      "Suppressing clientless heron {} with missing header info", name);
      return;
    }
    tables.insert(std::move(table));
  });
  return 0;
}

void HeronClientScanner::printClientTables(int pid, const std::set<Model::HeronTable>& tables) const {
  std::ostringstream writers;
  std::ostringstream shadows;
  const HeronType writerType = Writer;
  const HeronType shadowType = Shadow;
  writers << "Tables with client ( pid: " << pid << " ) of Type " << writerType << ":\n";
  shadows << "Tables with client ( pid: " << pid << " ) of Type " << shadowType << ":\n";
  auto hasPid = [pid](const Model::HeronClientList& list) {
    for (const Model::HeronClient& client : list) {
      if (client.pid == pid) {
        return true;
      }
    }
    return false;
  };
  for (const Model::HeronTable& table : tables) {
    if (hasPid(table.clients.at(Writer))) {
      writers << table.print();
    }
    if (hasPid(table.clients.at(Shadow))) {
      shadows << table.print();
    }
  }
  *out << writers.str() << shadows.str();
}

// ---------------------------------------------------------------------------
// Reports

int HeronClientScanner::doGetClientInfo(bool json) const {
  // Deliberate: getClients() warns as well, so a user who is not root sees
  // the warning twice on standard output.
  warnRunAsRoot();
  Model::HeronTable table("");
  if (getClients(table) != 0) {
    std::cerr << "Error getting clients of Heron " << Beacon::Util::escapeText(tableName) << std::endl;
    return 1;
  }
  if (json) {
    std::cerr << "JSON client printing is not supported yet." << std::endl;
    return 1;
  }
  *out << table.print();
  return 0;
}

int HeronClientScanner::doGetAllClientInfo() const {
  warnRunAsRoot();
  std::set<Model::HeronTable> tables;
  if (getAllClients(tables) != 0) {
    std::cerr << "Error getting readers and writers of Heron" << std::endl;
    return 1;
  }
  if (addClientlessHerons(tables) != 0) {
    std::cerr << "Error adding clientless Herons" << std::endl;
    return 1;
  }
  if (tables.empty()) {
    *out << "No Herons\n" << std::endl;
  } else {
    for (const Model::HeronTable& table : tables) {
      *out << table.print();
    }
  }
  return 0;
}

int HeronClientScanner::doGetTableInfo(int pid) const {
  warnRunAsRoot();
  std::set<Model::HeronTable> tables;
  if (getAllClients(tables) != 0) {
    std::cerr << "Error getting readers and writers of Heron" << std::endl;
    return 1;
  }
  if (!tables.empty()) {
    printClientTables(pid, tables);
  } else {
    *out << "No Herons" << std::endl;
  }
  return 0;
}

}  // namespace Heron

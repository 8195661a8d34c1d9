// Which processes are attached to which tables: the walk over the process
// table, the grouping of mappings by table and the who / who-all / what
// reports.
#include "HeronClientScanner.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "Beacon/Trace.h"
#include "Beacon/Util.h"
#include "Mem/TableFinder.h"
#include "SharedMem/OwnerFile.h"
#include "readers/QuarryHelperScanner.h"
#include "readers/RelayHelperScanner.h"

namespace Heron {

namespace {

constexpr const char* kSource = "HeronClientScanner";
constexpr const char* kClass = "HeronClientScanner";

// Lines of a maps file are short; longer ones fall back to the heap.
constexpr std::size_t kTokenStackBuffer = 512;

// Reading buffer of a maps file: the kernel hands out large chunks when asked.
constexpr std::size_t kMapsReadBuffer = std::size_t{64} * 1024;

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
bool isReadWrite(const std::string& permissions) { return permissions.compare(0, 2, "rw") == 0; }

// False when `line` cannot name a heron file: neither name occurs in it.
// Used to pass over such lines without tokenizing them, which is only done
// while the per-line traces are off (they would show the skipped lines).
bool mayNameHeronFile(const std::string& line) {
  const char* text = line.data();
  return ::memmem(text, line.size(), "relay.1", 7) != nullptr || ::memmem(text, line.size(), "ember", 5) != nullptr;
}

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

bool HeronClientScanner::readNextMmap(Beacon::DirNode& directory, std::string& mapsPath) const {
  for (;;) {
    const struct dirent* entry = directory.readEntry();
    if (entry == nullptr) {
      return false;
    }
    mapsPath.clear();
    fmt::format_to(std::back_inserter(mapsPath), "{}/{}/maps", directory.path(), entry->d_name);
    struct stat64 status;
    if (::stat64(mapsPath.c_str(), &status) == 0) {
      return true;
    }
  }
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
    Beacon::fmtrace(debugHandler(), 5, kSource, "getProcNameForPid", __LINE__, kClass, "file {} no longer exists",
                    linkPath);
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

// One maps file opened for line reading with a large buffer; the buffer must
// outlive the stream, so both live here.
struct MapsFile {
  void open(const std::string& path) {
    buffer.reset(new char[kMapsReadBuffer]);
    stream.rdbuf()->pubsetbuf(buffer.get(), static_cast<std::streamsize>(kMapsReadBuffer));
    stream.open(path, std::ios::in);
  }
  std::unique_ptr<char[]> buffer;
  std::ifstream stream;
};

// The pid, process name and open maps file of one /proc entry, the same for
// both extraction forms. False, after the documented traces, when the entry
// is not a process or the process is gone.
bool openProcessMaps(const HeronClientScanner& scanner, const std::string& pidText, const std::string& mapsPath,
                     const char* function, long& pid, std::string& procName, MapsFile& file) {
  const Beacon::Platform::DebugHandler& handler = scanner.debugHandler();
  // errno is not cleared on purpose: a failure left by the directory walk
  // drops a non-numeric entry that follows it.
  pid = std::strtol(pidText.c_str(), nullptr, 10);
  if (pid == 0 && errno != 0) {
    return false;
  }
  procName = scanner.getProcNameForPid(pidText);
  if (procName.empty()) {
    return false;
  }
  file.open(mapsPath);
  std::ifstream& stream = file.stream;
  if (!stream.is_open()) {
    Beacon::fmtrace(handler, 5, kSource, function, __LINE__, kClass, "file {} no longer exists", mapsPath);
    return false;
  }
  if (!stream.good()) {
    Beacon::fmtrace(handler, 0, kSource, function, __LINE__, kClass, "file {} error: eofbit: {} failbit: {} badbit: {}",
                    mapsPath, stream.eof(), stream.fail(), stream.bad());
    return false;
  }
  return true;
}

}  // namespace

void HeronClientScanner::extractMmapInfo(const std::string& mapsPath, std::vector<MmapInfo>& out) const {
  const Beacon::Platform::DebugHandler& handler = debugHandler();
  const char* function = "extractMmapInfo";
  if (handler.enabled(5)) {
    Beacon::fmtrace(handler, 5, kSource, function, __LINE__, kClass,
                    "Extracting mmap info for rootpath: {}, filePath: {}", rootPath.path(), mapsPath);
  }
  long pid = 0;
  std::string procName;
  MapsFile file;
  if (!openProcessMaps(*this, getToken(mapsPath, pidTokenIndex, "/"), mapsPath, function, pid, procName, file)) {
    return;
  }
  std::ifstream& stream = file.stream;
  const std::string targetPaths[2] = {rootPath.fullPath(heronFileTypes[0]), rootPath.fullPath(heronFileTypes[1])};

  const bool traceLines = handler.enabled(9);
  std::string line;
  while (stream.good()) {
    std::getline(stream, line);
    if (line.empty() || (!traceLines && !mayNameHeronFile(line))) {
      continue;
    }
    const std::string region = getToken(line, 6, " ");
    if (region.empty()) {
      continue;
    }
    Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "mmapRegion: {}", region);
    int code;
    if (region == targetPaths[0]) {
      code = 0;
    } else if (region == targetPaths[1]) {
      code = 1;
    } else {
      continue;
    }
    Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "heronFileType: {}", heronFileTypes[code]);
    std::string permissions = getToken(line, 2, " ");
    Beacon::fmassert(!permissions.empty(), kSource, function, __LINE__, kClass, "!permissions.empty()");
    out.emplace_back(static_cast<int>(pid), procName, std::move(permissions), heronFileTypes[code]);
    if (handler.enabled(9)) {
      Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "Added: {}", out.back().toTraceString());
    }
  }
}

void HeronClientScanner::extractMmapInfo(std::vector<MmapInfo>& out) const {
  Beacon::fmtrace(debugHandler(), 5, kSource, "extractMmapInfo", __LINE__, kClass,
                  "Extracting mmap info for rootpath: {} traversing /proc", rootPath.path());
  Beacon::DirNode directory(debugHandler(), procRoot);
  Beacon::fmassert(directory.isOpen(), kSource, "extractMmapInfo", __LINE__, kClass, "Couldn't open /proc");
  std::string mapsPath;
  while (readNextMmap(directory, mapsPath)) {
    extractMmapInfo(mapsPath, out);
  }
}

void HeronClientScanner::extractMmapInfoByTable(const std::string& mapsPath, TableToInfoMap& tables) const {
  const Beacon::Platform::DebugHandler& handler = debugHandler();
  const char* function = "extractMmapInfoByTable";
  if (handler.enabled(5)) {
    Beacon::fmtrace(handler, 5, kSource, function, __LINE__, kClass,
                    "Extracting mmap info by table for rootpath: {}, filePath: {}", rootPath.path(), mapsPath);
  }
  long pid = 0;
  std::string procName;
  MapsFile file;
  if (!openProcessMaps(*this, getToken(mapsPath, pidTokenIndex, "/"), mapsPath, function, pid, procName, file)) {
    return;
  }
  std::ifstream& stream = file.stream;

  const bool traceLines = handler.enabled(9);
  std::string line;
  while (stream.good()) {
    std::getline(stream, line);
    if (line.empty() || (!traceLines && !mayNameHeronFile(line))) {
      continue;
    }
    const std::string region = getToken(line, 6, " ");
    if (region.empty()) {
      continue;
    }
    Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "mmapRegion: {}", region);
    const std::size_t slash = region.rfind('/');
    if (slash == std::string::npos) {
      continue;
    }
    // The classification of getFileType, on the last component, in place.
    int code;
    if (region.compare(slash + 1, std::string::npos, heronFileTypes[0]) == 0) {
      code = 0;
    } else if (region.compare(slash + 1, std::string::npos, heronFileTypes[1]) == 0) {
      code = 1;
    } else {
      continue;
    }
    Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "heronFileType: {}", heronFileTypes[code]);
    std::string permissions = getToken(line, 2, " ");
    Beacon::fmassert(!permissions.empty(), kSource, function, __LINE__, kClass, "!permissions.empty()");
    MmapInfo info(static_cast<int>(pid), procName, std::move(permissions), heronFileTypes[code]);
    if (handler.enabled(9)) {
      Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "adding to map: {}", info.toTraceString());
    }
    tables[region.substr(0, slash)].push_back(info);
  }
}

HeronClientScanner::TableToInfoMap HeronClientScanner::extractMmapInfoByTable() const {
  Beacon::fmtrace(debugHandler(), 5, kSource, "extractMmapInfoByTable", __LINE__, kClass,
                  "Extracting mmap info by table for rootpath: {} traversing /proc", rootPath.path());
  TableToInfoMap tables;
  tables.max_load_factor(1.0F);
  Beacon::DirNode directory(debugHandler(), procRoot);
  Beacon::fmassert(directory.isOpen(), kSource, "extractMmapInfoByTable", __LINE__, kClass, "Couldn't open /proc");
  std::string mapsPath;
  while (readNextMmap(directory, mapsPath)) {
    extractMmapInfoByTable(mapsPath, tables);
  }
  return tables;
}

// ---------------------------------------------------------------------------
// Categorisation and command names

bool HeronClientScanner::categorizeClient(const MmapInfo& info, Model::HeronTable& table, bool& writerFound,
                                          std::unordered_set<int>& shadowPids) const {
  const Beacon::Platform::DebugHandler& handler = debugHandler();
  const char* function = "categorizeClient";
  if (info.permissions.empty() || info.procName.empty() || info.heronFileType.empty()) {
    if (handler.enabled(0)) {
      std::string record = fmt::format("{}|{}|{}|{}|", info.pid, info.procName, info.permissions, info.heronFileType);
      Beacon::fmtrace(handler, 0, kSource, function, __LINE__, kClass, "Failed to tokenize: {}", record);
    }
    return true;
  }
  if (isReadWrite(info.permissions)) {
    if (!writerFound) {
      Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "adding writer: {}-{}", info.procName, info.pid);
      writerFound = true;
      table.clients.at(Writer).emplace_back(info.pid, info.procName);
      return false;
    }
    Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass,
                    "Trying to add writer, but theres already a writer in clientList");
    return false;
  }
  if (shadowPids.count(info.pid) != 0) {
    Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "pid ({}) is already categorized as shadow",
                    info.pid);
    return false;
  }
  if (info.heronFileType != heronFileTypes[0] && info.heronFileType != heronFileTypes[1]) {
    Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "Unexpected heron file {}", info.heronFileType);
    return true;
  }
  Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "adding a reader of some type: {}-{}", info.procName,
                  info.pid);
  shadowPids.insert(info.pid);
  table.clients.at(Shadow).emplace_back(info.pid, info.procName);
  return false;
}

void HeronClientScanner::doPopulateCommandNames(Model::HeronClientList& clients,
                                                std::unordered_map<int, std::string>& commandCache) const {
  const char* function = "doPopulateCommandNames";
  for (Model::HeronClient& client : clients) {
    auto cached = commandCache.find(client.pid);
    std::string command;
    if (cached != commandCache.end()) {
      command = cached->second;
      Beacon::fmtrace(debugHandler(), 5, kSource, function, __LINE__, kClass, "Found command {} in cache for {}",
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
      Beacon::fmtrace(debugHandler(), 5, kSource, function, __LINE__, kClass, "Extracted command {} for pid {}",
                      command, client.pid);
      commandCache.emplace(client.pid, command);
    }
    client.command = command;
  }
}

// ---------------------------------------------------------------------------
// Header info

void HeronClientScanner::getHeaderInfo(const std::string& tablePath, Model::HeronTable& table) const {
  Mem::OrbRootPath tableRoot(debugHandler(), std::string(tablePath), false);
  QuarryHelperScanner quarry(debugHandler(), tableRoot, std::string());
  RelayHelperScanner relay(debugHandler(), tableRoot, false);
  populateHeronTableHeaderInfo(quarry, relay, table);
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

int HeronClientScanner::getClients(Model::HeronTable& table) const {
  warnRunAsRoot();
  table = Model::HeronTable(rootPath.path());
  std::vector<MmapInfo> mappings;
  extractMmapInfo(mappings);

  const Beacon::Platform::DebugHandler& handler = debugHandler();
  bool writerFound = false;
  std::unordered_set<int> shadowPids;
  for (const MmapInfo& info : mappings) {
    if (handler.enabled(5)) {
      Beacon::fmtrace(handler, 5, kSource, "getClients", __LINE__, kClass, "{}|{}|{}|{}|", info.pid, info.procName,
                      info.permissions, info.heronFileType);
    }
    if (categorizeClient(info, table, writerFound, shadowPids)) {
      return 1;
    }
  }
  std::unordered_map<int, std::string> commandCache;
  doPopulateCommandNames(table.clients.at(Writer), commandCache);
  doPopulateCommandNames(table.clients.at(Shadow), commandCache);
  getHeaderInfo(tableName, table);
  table.sortClients();
  return 0;
}

int HeronClientScanner::getAllClients(std::set<Model::HeronTable>& tables) const {
  const Beacon::Platform::DebugHandler& handler = debugHandler();
  const char* function = "getAllClients";
  const TableToInfoMap grouped = extractMmapInfoByTable();
  const std::string& root = rootPath.path();
  for (const auto& group : grouped) {
    const std::string& path = group.first;
    const std::vector<MmapInfo>& mappings = group.second;
    Beacon::fmtrace(handler, 5, kSource, function, __LINE__, kClass, "Analyzing heron {} with mmapInfo.size: {}", path,
                    mappings.size());
    std::string name;
    if (path.find(root) != std::string::npos) {
      name = path.substr(root.size() + 1);
    } else {
      Beacon::fmtrace(handler, 5, kSource, function, __LINE__, kClass,
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
    Beacon::fmtrace(handler, 5, kSource, function, __LINE__, kClass, "SharedMem table:{} lookup found table type:{}",
                    name, type);
    if ((type & ~2U) != 0) {
      continue;
    }
    Model::HeronTable table(name);
    bool writerFound = false;
    std::unordered_set<int> shadowPids;
    for (const MmapInfo& info : mappings) {
      if (handler.enabled(5)) {
        Beacon::fmtrace(handler, 5, kSource, function, __LINE__, kClass, "{}|{}|{}|{}|", info.pid, info.procName,
                        info.permissions, info.heronFileType);
      }
      if (categorizeClient(info, table, writerFound, shadowPids)) {
        return 1;
      }
    }
    std::unordered_map<int, std::string> commandCache;
    doPopulateCommandNames(table.clients.at(Writer), commandCache);
    doPopulateCommandNames(table.clients.at(Shadow), commandCache);
    getHeaderInfo(name, table);
    table.sortClients();
    tables.insert(std::move(table));
  }
  return 0;
}

int HeronClientScanner::addClientlessHerons(std::set<Model::HeronTable>& tables) const {
  const Beacon::Platform::DebugHandler& handler = debugHandler();
  const char* function = "addClientlessHerons";
  Mem::TableFinder finder(debugHandler(), rootPath);
  finder.find("", SharedMem::Table);
  Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "Determining clientless herons");
  for (const std::string& name : finder.matches()) {
    Beacon::fmtrace(handler, 9, kSource, function, __LINE__, kClass, "Looking for {} in tables", name);
    Model::HeronTable table(name);
    if (tables.count(table) != 0) {
      continue;
    }
    getHeaderInfo(name, table);
    if (!headerComplete(table.headerInfo)) {
      Beacon::fmtrace(handler, 5, kSource, function, __LINE__, kClass,
                      "Suppressing clientless heron {} with missing header info", name);
      continue;
    }
    tables.insert(std::move(table));
  }
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

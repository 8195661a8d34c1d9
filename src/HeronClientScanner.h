// Which processes are attached to which tables, read from /proc.
//
// One scanner answers one query; it borrows its output stream (which must
// outlive it) and keeps no state beyond its three fields. All queries are
// const and re-read /proc from scratch. Single-threaded per scanner.
#pragma once

#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Beacon/Debuggable.h"
#include "Beacon/DirNode.h"
#include "Beacon/Export.h"
#include "Mem/RootPath.h"
#include "model/Model.h"

namespace Heron {

class QuarryHelperScanner;
class RelayHelperScanner;

// One mapping of one heron file by one process.
// A null C string is a programming error: rejected as the old library did.
inline std::string copyRequiredText(const char* text) {
  if (text == nullptr) {
    throw std::logic_error("basic_string::_S_construct null not valid");
  }
  return std::string(text);
}

struct MmapInfo {
  MmapInfo(int pid, std::string procName, std::string permissions, const char* heronFileType)
      : pid(pid),
        procName(std::move(procName)),
        permissions(std::move(permissions)),
        heronFileType(copyRequiredText(heronFileType)) {}

  // "pid|procName|permissions|heronFileType|"
  std::string toTraceString() const;

  int pid;
  std::string procName;
  std::string permissions;
  std::string heronFileType;
};

class HERON_EXPORT HeronClientScanner : public Beacon::Debuggable {
 public:
  using TableToInfoMap = std::unordered_map<std::string, std::vector<MmapInfo>>;

  // File names whose mappings make a process a client; index = file type.
  static const char* const heronFileTypes[2];

  // Reads the process table at /proc. The scanner borrows `out` and keeps
  // copies of the root path and table name.
  HeronClientScanner(std::ostream* out, const Mem::OrbRootPath& rootPath, const char* tableName);
  // The same over the process table at `procRoot`; tests point it at a fake one.
  HeronClientScanner(std::ostream* out, const Mem::OrbRootPath& rootPath, const char* tableName,
                     const std::string& procRoot);
  ~HeronClientScanner() override;

  // Reports; each returns the exit status.
  int doGetClientInfo(bool json) const;
  int doGetAllClientInfo() const;
  int doGetTableInfo(int pid) const;

  // Queries behind the reports.
  int getClients(Model::HeronTable& table) const;
  int getAllClients(std::set<Model::HeronTable>& tables) const;
  int addClientlessHerons(std::set<Model::HeronTable>& tables) const;
  void printClientTables(int pid, const std::set<Model::HeronTable>& tables) const;

  bool categorizeClient(const MmapInfo& info, Model::HeronTable& table, bool& writerFound,
                        std::unordered_set<int>& shadowPids) const;
  void doPopulateCommandNames(Model::HeronClientList& clients,
                              std::unordered_map<int, std::string>& commandCache) const;
  void getHeaderInfo(const std::string& tablePath, Model::HeronTable& table) const;
  void populateHeronTableHeaderInfo(QuarryHelperScanner& quarry, RelayHelperScanner& relay,
                                    Model::HeronTable& table) const;

  // /proc reading.
  void extractMmapInfo(const std::string& mapsPath, std::vector<MmapInfo>& out) const;
  void extractMmapInfo(std::vector<MmapInfo>& out) const;
  void extractMmapInfoByTable(const std::string& mapsPath, TableToInfoMap& tables) const;
  TableToInfoMap extractMmapInfoByTable() const;

  int getFileType(const std::string& fileName) const;
  std::string getToken(const std::string& text, unsigned index, const std::string& delimiters) const;
  bool readNextMmap(Beacon::DirNode& directory, std::string& mapsPath) const;
  void warnRunAsRoot() const;
  std::string getProcNameForPid(const std::string& pidText) const;

 private:
  std::ostream* out;
  Mem::OrbRootPath rootPath;
  std::string tableName;
  std::string procRoot;
  // Index of the pid component in "<procRoot>/<pid>/maps" when split on '/'.
  unsigned pidTokenIndex;
};

}  // namespace Heron

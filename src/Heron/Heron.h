// The interface of libheron.so: exactly the names the library exports, for
// programs that link it instead of running the heron launcher:
//
//   find_package(heron REQUIRED)
//   target_link_libraries(app PRIVATE heron::heron)
//   ...
//   #include "Heron/Heron.h"
//   return Heron::main(argc, argv);
//
// The runtime types that appear here (Beacon::Debuggable, Mem::RootPath,
// Mem::OrbRootPath) come from the runtime headers installed beside this one.
// Their inline members are usable as they are; their other members
// (OrbRootPath's constructor among them) live in libheronrt.a, which
// libheron.so keeps private: a program that builds an OrbRootPath for a
// HeronClientScanner links heron::heronrt as well, and then holds a runtime of
// its own (its own trace handlers) beside the library's.
//
// The library's own headers (src/HeronScanner.h, src/HeronClientScanner.h)
// include this one and add the internal declarations. The install test
// compiles a program that names every member declared here, links it
// against the installed library alone, and checks that the names it takes
// from the library are exactly the names the library exports, so that the
// two cannot drift apart unnoticed.
#pragma once

#include <ostream>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Beacon/Debuggable.h"
#include "Beacon/Export.h"
#include "Mem/RootPath.h"

namespace Beacon {
class DirNode;
}  // namespace Beacon

namespace Heron {

namespace Model {
struct HeronClient;
struct HeronTable;
}  // namespace Model

// Output style: 0 the ordinary text dump, 1 JSON (-j), 2 pretty-printed
// hierarchy (-p).
enum Style : int { Text = 0, Json = 1, Pretty = 2 };

// The whole utility: argv as a command line gives it (argv[0] the program
// name), output on standard output and standard error; the result is the
// process exit status. An exception from the runtime may pass out of it (the
// launcher turns it into one line and status 1).
HERON_EXPORT int main(int argc, char** argv);

// Styled printing by root type. No root type is known yet: always writes
// "No knowledge of root type:<typeName>" to standard error and returns 1.
HERON_EXPORT int printHeron(const std::string& typeName, const Mem::RootPath& root, std::ostream* out, Style style);

class QuarryHelperScanner;
class RelayHelperScanner;
struct MmapInfo;

// Which processes are attached to which tables, read from /proc. One scanner
// answers one query; it borrows its output stream (which must outlive it)
// and keeps copies of the root path and table name. All queries are const
// and re-read /proc from scratch. Single-threaded per scanner.
// The members that take the library's internal types (MmapInfo, the model,
// the helper scanners) are for the library's own use.
class HERON_EXPORT HeronClientScanner : public Beacon::Debuggable {
 public:
  using TableToInfoMap = std::unordered_map<std::string, std::vector<MmapInfo>>;

  // File names whose mappings make a process a client ("relay.1", "ember");
  // index = file type.
  static const char* const heronFileTypes[2];

  HeronClientScanner(std::ostream* out, const Mem::OrbRootPath& rootPath, const char* tableName);
  // The process table read from `procRoot` instead of /proc: for the
  // library's own tests, and not exported.
  HERON_HIDDEN HeronClientScanner(std::ostream* out, const Mem::OrbRootPath& rootPath, const char* tableName,
                                  const std::string& procRoot);
  ~HeronClientScanner() override;

  // Reports; each returns the exit status.
  int doGetClientInfo(bool json) const;
  int doGetAllClientInfo() const;
  int doGetTableInfo(int pid) const;

  int getClients(Model::HeronTable& table) const;
  int getAllClients(std::set<Model::HeronTable>& tables) const;
  int addClientlessHerons(std::set<Model::HeronTable>& tables) const;
  void printClientTables(int pid, const std::set<Model::HeronTable>& tables) const;

  bool categorizeClient(const MmapInfo& info, Model::HeronTable& table, bool& writerFound,
                        std::unordered_set<int>& shadowPids) const;
  void doPopulateCommandNames(std::vector<Model::HeronClient>& clients,
                              std::unordered_map<int, std::string>& commandCache) const;
  void getHeaderInfo(const std::string& tablePath, Model::HeronTable& table) const;
  void populateHeronTableHeaderInfo(QuarryHelperScanner& quarry, RelayHelperScanner& relay,
                                    Model::HeronTable& table) const;

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
  unsigned pidTokenIndex;
};

}  // namespace Heron

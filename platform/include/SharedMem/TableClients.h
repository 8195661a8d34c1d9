// Which processes map which tables: read from every process's memory maps
// under /proc. A process that maps a table's queue file ("relay.1") or its
// ember is one of the table's clients; one that maps it for writing is its
// writer. Read-only: /proc is only read, no table file is opened.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace SharedMem {

// One process's mapping of one table file.
struct TableMapping {
  int pid = 0;  // as this /proc shows it
  bool readWrite = false;
  bool ember = false;  // the ember; otherwise the queue file "relay.1"
  // The process's pid in its own (innermost) PID namespace and that
  // namespace's inode; 0 when not asked for or not readable.
  std::uint32_t innermostPid = 0;
  std::uint64_t pidNamespace = 0;
};

// By table directory (the mapped file's directory as the kernel prints it),
// each table's mappings in the order found.
using TableMappings = std::unordered_map<std::string, std::vector<TableMapping>>;

struct MappingWalk {
  std::string procRoot = "/proc";
  // Also read each mapping process's innermost pid and PID namespace.
  bool namespaces = false;
};

// Every process under the walk's /proc, in directory order. A process whose
// maps file or executable link cannot be read (gone, or another user's
// without the rights) contributes nothing.
TableMappings findTableMappings(const MappingWalk& walk = MappingWalk());

// Whether maps permissions ("rw-s") allow writing.
bool mapsForWriting(std::string_view permissions);

// The clients of one table from its mappings: the first process that maps a
// file for writing is the writer (any later one is not counted), every
// process that maps a file without write permission a shadow, once, in the
// order found; a writer that also maps a file read-only is a shadow too.
// Mappings of pid `ignore` (0: none) are left out.
struct TableClients {
  std::vector<int> writers;  // none or one
  std::vector<int> shadows;
};
TableClients tableClients(const std::vector<TableMapping>& mappings, int ignore = 0);

}  // namespace SharedMem

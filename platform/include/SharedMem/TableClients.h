// Which processes map which tables: read from every process's memory maps
// under /proc. A process that maps a table's queue file ("relay.1") or its
// ember is one of the table's clients; one that maps it for writing is its
// writer. Read-only: /proc is only read, no table file is opened.
#pragma once

#include <cstdint>
#include <optional>
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
  // The devices (st_dev) of the directories that hold the tables asked
  // about, when known: a mapping of a file on another device cannot be one
  // of theirs, and the kernel is not asked to name it (each process's
  // mappings are asked for one by one, where the kernel can). Unset: every
  // mapping is named, from the maps text.
  std::optional<std::vector<std::uint64_t>> devices;
  // Behave as on a kernel that refuses the one-by-one query: the text is
  // read. For tests.
  bool refuseQuery = false;
};

// Every process under the walk's /proc, in directory order. A process whose
// maps file or executable link cannot be read (gone, or another user's
// without the rights) contributes nothing.
TableMappings findTableMappings(const MappingWalk& walk = MappingWalk());

// The device (st_dev) of the directory `dir` when the mappings of files in
// it show that device; false when it cannot be read or its file system may
// show another (one that maps the file of a lower layer, or gives each
// subvolume a device of its own): the walk must then be given no devices.
bool mappedDevice(const std::string& dir, std::uint64_t& device);

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

#include "SharedMem/TableClients.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <unordered_set>

#include "Beacon/MapsReader.h"
#include "Beacon/ProcPid.h"

namespace SharedMem {

namespace {

// Token `index` (from 0) of a maps line, tokens separated by runs of blanks.
std::string_view token(std::string_view line, unsigned index) {
  std::size_t at = 0;
  for (unsigned i = 0;; ++i) {
    at = line.find_first_not_of(' ', at);
    if (at == std::string_view::npos) {
      return {};
    }
    const std::size_t end = std::min(line.find(' ', at), line.size());
    if (i == index) {
      return line.substr(at, end - at);
    }
    at = end;
  }
}

// A pid entry of /proc: digits only, not 0.
int pidOf(const char* name) {
  char* end = nullptr;
  const long pid = std::strtol(name, &end, 10);
  return *name >= '0' && *name <= '9' && *end == '\0' && pid > 0 && pid <= 0x7FFFFFFF ? static_cast<int>(pid) : 0;
}

bool hasExecutable(const std::string& procRoot, const std::string& pid) {
  char target[16];
  return ::readlink((procRoot + "/" + pid + "/exe").c_str(), target, sizeof target) >= 0;
}

void readNamespace(const std::string& procRoot, const std::string& pid, TableMapping& out) {
  Beacon::Proc::PidStatus status;
  if (Beacon::Proc::readPidStatus(out.pid, status, procRoot)) {
    out.innermostPid = status.innermostPid();
  }
  out.pidNamespace = Beacon::Proc::readPidNamespace(pid, procRoot);
}

// One process's mappings of table files, added to `tables`.
void readProcess(const MappingWalk& walk, Beacon::Proc::MapsReader& reader, int fd, int pid, const std::string& name,
                 TableMappings& tables) {
  bool checked = false;
  bool seen = false;
  TableMapping found;
  found.pid = pid;
  reader.forEachLine(fd, false, [&](std::string_view line) {
    const std::string_view path = token(line, 5);
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
      return true;
    }
    const std::string_view file = path.substr(slash + 1);
    if (file != "relay.1" && file != "ember") {
      return true;
    }
    if (!checked) {
      checked = true;
      seen = hasExecutable(walk.procRoot, name);
      if (seen && walk.namespaces) {
        // Read once per process, and only for one that maps a table.
        readNamespace(walk.procRoot, name, found);
      }
    }
    if (!seen) {
      return false;
    }
    found.readWrite = mapsForWriting(token(line, 1));
    found.ember = file == "ember";
    tables[std::string(path.substr(0, slash))].push_back(found);
    return true;
  });
}

}  // namespace

bool mapsForWriting(std::string_view permissions) { return permissions.substr(0, 2) == "rw"; }

TableMappings findTableMappings(const MappingWalk& walk) {
  TableMappings tables;
  DIR* dir = ::opendir(walk.procRoot.c_str());
  if (dir == nullptr) {
    return tables;
  }
  Beacon::Proc::MapsReader reader;
  while (const struct dirent* entry = ::readdir(dir)) {
    const int pid = pidOf(entry->d_name);
    if (pid == 0) {
      continue;
    }
    const std::string name = entry->d_name;
    const int fd = ::open((walk.procRoot + "/" + name + "/maps").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      continue;
    }
    readProcess(walk, reader, fd, pid, name, tables);
    ::close(fd);
  }
  ::closedir(dir);
  return tables;
}

TableClients tableClients(const std::vector<TableMapping>& mappings, int ignore) {
  TableClients clients;
  std::unordered_set<int> shadows;
  for (const TableMapping& mapping : mappings) {
    if (ignore != 0 && mapping.pid == ignore) {
      continue;
    }
    if (mapping.readWrite) {
      if (clients.writers.empty()) {
        clients.writers.push_back(mapping.pid);
      }
    } else if (shadows.insert(mapping.pid).second) {
      clients.shadows.push_back(mapping.pid);
    }
  }
  return clients;
}

}  // namespace SharedMem

#include "SharedMem/TableClients.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <unordered_set>
#include <utility>

#include "Beacon/MapQuery.h"
#include "Beacon/MapsReader.h"
#include "Beacon/ProcPid.h"
#include "Beacon/UniqueFd.h"

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

// One process's mappings of table files as they are met, added to `tables`.
class ProcessMappings {
 public:
  ProcessMappings(const MappingWalk& walk, int pid, const std::string& name, TableMappings& tables)
      : walk_(walk), name_(name), tables_(tables) {
    found_.pid = pid;
  }

  // `path`: the mapped file's path token as the maps text shows it. False
  // when the process is to be left out (no more of it need be read).
  bool add(std::string_view path, bool readWrite) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
      return true;
    }
    const std::string_view file = path.substr(slash + 1);
    if (file != "relay.1" && file != "ember") {
      return true;
    }
    if (!checked_) {
      checked_ = true;
      seen_ = hasExecutable(walk_.procRoot, name_);
      if (seen_ && walk_.namespaces) {
        // Read once per process, and only for one that maps a table.
        readNamespace(walk_.procRoot, name_, found_);
      }
    }
    if (!seen_) {
      return false;
    }
    found_.readWrite = readWrite;
    found_.ember = file == "ember";
    tables_[std::string(path.substr(0, slash))].push_back(found_);
    return true;
  }

 private:
  const MappingWalk& walk_;
  const std::string& name_;
  TableMappings& tables_;
  TableMapping found_;
  bool checked_ = false;
  bool seen_ = false;
};

void readText(Beacon::Proc::MapsReader& reader, int fd, ProcessMappings& process) {
  reader.forEachLine(
      fd, false, [&](std::string_view line) { return process.add(token(line, 5), mapsForWriting(token(line, 1))); });
}

// The devices of a walk as the kernel gives them: (major, minor).
using Devices = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

bool onDevices(const Devices& devices, const Beacon::Proc::MapQuery& query) {
  for (const auto& device : devices) {
    if (device.first == query.devMajor && device.second == query.devMinor) {
      return true;
    }
  }
  return false;
}

// A mapping's name as the maps text prints it: a newline as "\012".
std::string_view printedName(const char* name, std::size_t size, std::string& out) {
  const std::string_view raw(name, size);
  if (raw.find('\n') == std::string_view::npos) {
    return raw;
  }
  out.clear();
  for (const char c : raw) {
    out += c == '\n' ? std::string_view("\\012") : std::string_view(&c, 1);
  }
  return out;
}

enum class Queried { Done, Unsupported };

void askName(Beacon::Proc::MapQuery& query, std::string& name) {
  query.vmaNameSize = static_cast<std::uint32_t>(name.size());
  query.vmaNameAddr = reinterpret_cast<std::uintptr_t>(name.data());
}

// The process's file-backed mappings one by one; the name is asked only of
// those on `devices`. A file's mappings come in runs: after one on the
// devices, the next is asked its name along, saving a second call where
// the devices hold the libraries too. Unsupported when the first query is
// refused as unknown, before anything is added.
Queried queryMappings(const MappingWalk& walk, const Devices& devices, int fd, ProcessMappings& process,
                      std::string& name, std::string& printed) {
  using namespace Beacon::Proc;
  bool first = true;
  bool named = false;
  for (std::uint64_t at = 0;;) {
    MapQuery query{};
    query.size = sizeof query;
    query.queryFlags = kQueryCoveringOrNext | kQueryFileBacked;
    query.queryAddr = at;
    if (named) {
      askName(query, name);
    }
    if (walk.refuseQuery || ::ioctl(fd, kMapQueryRequest, &query) != 0) {
      const int error = walk.refuseQuery ? ENOTTY : errno;
      if (named && error == ENAMETOOLONG) {
        named = false;  // asked again without the name
        continue;
      }
      // ENOENT: no mapping above `at`; ESRCH: the process has exited.
      return first && mapQueryUnsupported(error) ? Queried::Unsupported : Queried::Done;
    }
    first = false;
    at = query.vmaEnd;
    if (!onDevices(devices, query)) {
      named = false;
      continue;
    }
    if (!named) {
      // Asked again, with room for the name, of the mapping just found.
      query.queryFlags = kQueryFileBacked;
      query.queryAddr = query.vmaStart;
      askName(query, name);
      if (::ioctl(fd, kMapQueryRequest, &query) != 0) {
        if (errno == ESRCH) {
          return Queried::Done;
        }
        continue;  // gone meanwhile, or a name longer than a path can be
      }
      named = true;
    }
    const std::size_t size = query.vmaNameSize > 0 ? query.vmaNameSize - 1 : 0;
    const bool readWrite = (query.vmaFlags & kVmaReadable) != 0 && (query.vmaFlags & kVmaWritable) != 0;
    if (!process.add(token(printedName(name.data(), size, printed), 0), readWrite)) {
      return Queried::Done;
    }
  }
}

}  // namespace

bool mappedDevice(const std::string& dir, std::uint64_t& device) {
  struct stat st {};
  struct statfs fs {};
  if (::stat(dir.c_str(), &st) != 0 || ::statfs(dir.c_str(), &fs) != 0) {
    return false;
  }
  // File systems whose mapped files are their own and whose stat gives
  // their own device; tables live on the first of them.
  switch (static_cast<unsigned long>(fs.f_type)) {
    case TMPFS_MAGIC:
    case HUGETLBFS_MAGIC:
    case RAMFS_MAGIC:
    case EXT4_SUPER_MAGIC:
    case XFS_SUPER_MAGIC:
      device = static_cast<std::uint64_t>(st.st_dev);
      return true;
    default:
      return false;
  }
}

bool mapsForWriting(std::string_view permissions) { return permissions.substr(0, 2) == "rw"; }

TableMappings findTableMappings(const MappingWalk& walk) {
  TableMappings tables;
  DIR* dir = ::opendir(walk.procRoot.c_str());
  if (dir == nullptr) {
    return tables;
  }
  Beacon::Proc::MapsReader reader;
  Devices devices;
  if (walk.devices) {
    for (const std::uint64_t device : *walk.devices) {
      devices.emplace_back(major(device), minor(device));
    }
  }
  // Once refused, the query is not tried again for the rest of the walk.
  bool query = walk.devices.has_value();
  std::string name(PATH_MAX, '\0');
  std::string printed;
  while (const struct dirent* entry = ::readdir(dir)) {
    const int pid = pidOf(entry->d_name);
    if (pid == 0) {
      continue;
    }
    const std::string pidName = entry->d_name;
    const Beacon::UniqueFd fd(::open((walk.procRoot + "/" + pidName + "/maps").c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
      continue;
    }
    ProcessMappings process(walk, pid, pidName, tables);
    if (query && queryMappings(walk, devices, fd.get(), process, name, printed) == Queried::Unsupported) {
      query = false;
    }
    if (!query) {
      readText(reader, fd.get(), process);
    }
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

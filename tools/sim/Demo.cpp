// heron-sim demo: a small live collection to point heron at.
//
// Creates its tables under the collection root, starts a writer and shadows
// for each (all children of this process, see DemoProcesses), prints the
// heron commands worth trying, and runs until Ctrl-C, SIGTERM, SIGHUP or
// --duration. Then it stops every child and removes the tables and the
// directories it created, unless --keep.
#include <dirent.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "Beacon/StopSignals.h"
#include "DemoProcesses.h"
#include "Mem/RootPath.h"
#include "Quarry/Offset.h"
#include "SharedMem/SharedMemType.h"
#include "Sim.h"

namespace Sim {

namespace {

struct DemoTable {
  const char* name;
  unsigned type;
  const char* typeName;
  bool writer;
  unsigned shadows;
};

// Several tables, nested names, one plain segment (type 1) and one table
// that nobody is attached to.
constexpr DemoTable kTables[] = {
    {"orders", SharedMem::Table, "HeronTable", true, 2},
    {"md/eu/quotes", SharedMem::Table, "HeronTable", true, 2},
    {"md/eu/trades", SharedMem::Table, "HeronTable", true, 1},
    {"md/us/quotes", SharedMem::Table, "HeronTable", true, 1},
    {"cache/segment", SharedMem::Segment, "SharedSegment", true, 1},
    {"archive/2025", SharedMem::Archive, "HeronArchive", false, 0},
};

// The table the printed examples name.
constexpr const char* kExampleTable = "md/eu/quotes";

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

// mkdir -p that remembers every directory it made, outermost first.
bool makeDirectories(const std::string& path, std::vector<std::string>& made, std::string& error) {
  std::size_t at = 0;
  while (at != std::string::npos) {
    at = path.find('/', at + 1);
    std::string partial = path.substr(0, at);
    if (partial.empty() || exists(partial)) {
      continue;
    }
    if (::mkdir(partial.c_str(), 0755) != 0) {
      error = partial + ": " + std::strerror(errno);
      return false;
    }
    made.push_back(partial);
  }
  return true;
}

// The lowest region id present in a table directory, 0 when none.
unsigned firstRegionId(const std::string& tableDir) {
  unsigned best = 0;
  DIR* dir = ::opendir(tableDir.c_str());
  if (dir == nullptr) {
    return 0;
  }
  while (const struct dirent* entry = ::readdir(dir)) {
    if (std::strncmp(entry->d_name, "region.", 7) != 0) {
      continue;
    }
    char* end = nullptr;
    unsigned long id = std::strtoul(entry->d_name + 7, &end, 10);
    if (end != nullptr && *end == '\0' && id >= 1 && id <= Quarry::Offset::kMaxRegionId && (best == 0 || id < best)) {
      best = static_cast<unsigned>(id);
    }
  }
  ::closedir(dir);
  return best;
}

// What the demo created, removed again on every way out unless kept.
class DemoCollection {
 public:
  explicit DemoCollection(bool keep) : keep_(keep) {}
  ~DemoCollection() { removeAll(); }
  DemoCollection(const DemoCollection&) = delete;
  DemoCollection& operator=(const DemoCollection&) = delete;

  std::vector<std::string>& directories() { return directories_; }
  void addTable(const std::string& name) { tables_.push_back(name); }

  void removeAll() {
    if (keep_ || done_) {
      return;
    }
    done_ = true;
    for (auto table = tables_.rbegin(); table != tables_.rend(); ++table) {
      commandRemove(*table);
    }
    // Innermost first; a directory someone else filled in the meantime stays.
    std::vector<std::string> order = directories_;
    std::sort(order.begin(), order.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    for (const std::string& dir : order) {
      ::rmdir(dir.c_str());
    }
  }

 private:
  bool keep_;
  bool done_ = false;
  std::vector<std::string> tables_;
  std::vector<std::string> directories_;
};

// True when no demo table is there yet (the demo never takes over tables).
bool noDemoTables(const std::string& rootText) {
  for (const DemoTable& table : kTables) {
    if (exists(rootText + "/" + table.name + "/owner")) {
      std::cerr << "heron-sim demo: table " << table.name << " already exists under " << rootText
                << "; remove it or set HERON_ROOT to another directory\n";
      return false;
    }
  }
  return true;
}

// Makes the root and every demo table under it, noting in `collection`
// what it made; `root` is the canonical root.
bool createTables(const std::string& rootText, DemoCollection& collection, std::string& root) {
  std::string error;
  if (!makeDirectories(rootText, collection.directories(), error)) {
    std::cerr << "heron-sim demo: " << error << '\n';
    return false;
  }
  root = Mem::canonical(rootText);
  for (const DemoTable& table : kTables) {
    std::string dir = root + "/" + table.name;
    std::size_t slash = dir.rfind('/');
    if (!makeDirectories(dir.substr(0, slash), collection.directories(), error)) {
      std::cerr << "heron-sim demo: " << error << '\n';
      return false;
    }
    if (!exists(dir)) {
      collection.directories().push_back(dir);
    }
    CreateSettings create;
    create.type = table.type;
    create.typeName = table.typeName;
    if (commandCreate(table.name, create) != 0) {
      return false;
    }
    collection.addTable(table.name);
  }
  return true;
}

// Starts `count(table)` processes of `role` ("writer" or "shadow"), each
// `heron-sim COMMAND TABLE EXTRA...`, for every table; their indexes in
// `started`.
template <typename Count>
bool startEach(DemoProcesses& processes, const char* role, const char* command, const Count& count,
               const std::vector<std::string>& extra, std::vector<int>& started) {
  std::string error;
  for (const DemoTable& table : kTables) {
    for (unsigned i = 0; i < count(table); ++i) {
      std::vector<std::string> args = {command, table.name};
      args.insert(args.end(), extra.begin(), extra.end());
      const int index = processes.start(role, table.name, args, error);
      if (index < 0) {
        std::cerr << "heron-sim demo: " << error << '\n';
        return false;
      }
      started.push_back(index);
    }
  }
  return true;
}

// A writer for every table that has one, then the shadows, which attach to
// what the writers made.
bool startProcesses(DemoProcesses& processes, unsigned long long rate) {
  std::vector<int> writers;
  if (!startEach(
          processes, "writer", "write", [](const DemoTable& table) { return table.writer ? 1U : 0U; },
          {"--rate", std::to_string(rate)}, writers)) {
    return false;
  }
  if (!processes.waitFirstLines(writers, 10000)) {
    for (int index : writers) {
      const DemoChild& child = processes.children()[static_cast<std::size_t>(index)];
      if (child.firstLine.empty()) {
        std::cerr << "heron-sim demo: the writer of " << child.table << " did not attach\n";
      }
    }
    return false;
  }
  std::vector<int> shadows;
  if (!startEach(
          processes, "shadow", "shadow", [](const DemoTable& table) { return table.shadows; }, {}, shadows)) {
    return false;
  }
  processes.waitFirstLines(shadows, 2000);
  processes.service();
  return true;
}

// The collection's tables with their processes; the example table's writer.
pid_t printCollection(const DemoProcesses& processes, const std::string& root) {
  pid_t examplePid = 0;
  std::cout << "\nheron demo collection under " << root << ":\n\n";
  std::cout << fmt::format("  {:<16} {:<5} {:<7} {}\n", "table", "type", "writer", "shadows");
  for (const DemoTable& table : kTables) {
    std::string writerText = "-";
    std::string shadowText;
    for (const DemoChild& child : processes.children()) {
      if (child.table != table.name) {
        continue;
      }
      if (child.role == "writer") {
        writerText = std::to_string(child.pid);
        if (table.name == std::string(kExampleTable)) {
          examplePid = child.pid;
        }
      } else {
        shadowText += (shadowText.empty() ? "" : " ") + std::to_string(child.pid);
      }
    }
    std::cout << fmt::format("  {:<16} {:<5} {:<7} {}\n", table.name, table.type, writerText,
                             shadowText.empty() ? "-" : shadowText);
  }
  return examplePid;
}

void printExamples(const std::string& root, pid_t examplePid, unsigned long long duration) {
  unsigned regionId = firstRegionId(root + "/" + kExampleTable);
  std::string t = kExampleTable;
  std::cout << "\nTry, in another shell:\n\n";
  const char* envRoot = std::getenv("HERON_ROOT");
  if (envRoot != nullptr && *envRoot != '\0') {
    std::cout << "  export HERON_ROOT=" << root << "\n";
  }
  auto example = [](const std::string& command, const std::string& what) {
    std::cout << fmt::format("  {:<28} {}\n", command, what);
  };
  example("heron -A", "every table, its capacity, writer and shadows");
  example("heron -w " + t, "the processes attached to one table");
  example("heron -c " + std::to_string(examplePid),
          "the tables that process " + std::to_string(examplePid) + " is attached to");
  example("heron -s " + t, "owner, queue headers and allocator totals");
  example("heron -d " + t, "the same with one row per region");
  example("heron -q " + t, "the live notifications of the active queue");
  example("heron -R " + t, "every used region entry");
  if (regionId != 0) {
    example("heron -R -r " + std::to_string(regionId) + " " + t, "one region only");
  }
  example("heron -a -e " + t, "regions and both queues in full, empty entries too");
  std::cout << '\n';
  if (duration != 0) {
    std::cout << "demo running for " << duration << " s; Ctrl-C stops it" << std::endl;
  } else {
    std::cout << "demo running; Ctrl-C stops it" << std::endl;
  }
}

// Serves the children's output until a stop signal or the end of
// `duration` seconds (0: no end); the signal, or 0.
int runUntilStopped(Beacon::StopSignals& signals, DemoProcesses& processes, unsigned long long duration) {
  long long deadline = duration != 0 ? monotonicMs() + static_cast<long long>(duration) * 1000 : 0;
  int stopSignal = signals.drain();
  while (stopSignal == 0) {
    int timeout = 1000;
    if (deadline != 0) {
      long long left = deadline - monotonicMs();
      if (left <= 0) {
        break;
      }
      timeout = static_cast<int>(std::min<long long>(left, 1000));
    }
    std::vector<struct pollfd> fds;
    fds.push_back({signals.fd(), POLLIN, 0});
    for (int fd : processes.outputFds()) {
      fds.push_back({fd, POLLIN, 0});
    }
    ::poll(fds.data(), fds.size(), timeout);
    stopSignal = signals.drain();
    processes.service();
  }
  return stopSignal;
}

}  // namespace

int commandDemo(const DemoSettings& settings) {
  // The stopping signals, and SIGCHLD and SIGPIPE of the children, are read
  // from a descriptor, so the main loop waits on children and signals at once.
  Beacon::StopSignals signals({SIGINT, SIGTERM, SIGHUP}, {SIGCHLD, SIGPIPE});
  if (!signals.ok()) {
    std::cerr << "heron-sim demo: signalfd: " << std::strerror(errno) << '\n';
    return 1;
  }
  const std::string rootText = Mem::OrbRootPath::collectionRoot();
  if (!noDemoTables(rootText)) {
    return 1;
  }
  // Declared before the processes so that the children are stopped before
  // their tables are removed.
  DemoCollection collection(settings.keep);
  std::string root;
  if (!createTables(rootText, collection, root)) {
    return 1;
  }
  DemoProcesses processes;
  if (!startProcesses(processes, settings.rate)) {
    return 1;
  }
  printExamples(root, printCollection(processes, root), settings.seconds);
  const int stopSignal = runUntilStopped(signals, processes, settings.seconds);
  std::cout << "stopping the demo" << (stopSignal != 0 ? std::string(" (") + ::strsignal(stopSignal) + ")" : "")
            << std::endl;
  processes.stopAll(3000);
  collection.removeAll();
  if (settings.keep) {
    std::cout << "kept the collection under " << root << std::endl;
  } else {
    std::cout << "removed the demo tables" << std::endl;
  }
  return 0;
}

}  // namespace Sim

// heron-sim shadow NAME [NAME...] [--rw] [--duration SECONDS]
//
// Maps each named table's relay.1 and ember (when the table has one yet)
// files and waits, so that the client
// reports have a real process to find. By default the mappings are read-only
// (O_RDONLY, PROT_READ), as a reader's are; with --rw they are read-write and
// shared, as the writer's are (for tests of the writer role; nothing is
// written). Prints "shadow PID attached to PATH" for each table once all are
// mapped, then waits for
// SIGTERM or SIGINT, or for --duration seconds.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Beacon/StopSignals.h"
#include "Beacon/UniqueFd.h"
#include "Beacon/Util.h"
#include "Sim.h"

namespace Sim {

namespace {

// One file mapped for the lifetime of the object.
class Mapping {
 public:
  Mapping() = default;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (address_ != MAP_FAILED) {
      ::munmap(address_, length_);
    }
  }

  bool map(const std::string& path, bool readWrite, std::string& error) {
    // Read-only as every reader opens a table file (a link or a FIFO in its
    // place is refused, never followed or waited on); --rw is a test hook.
    struct stat status {};
    Beacon::UniqueFd fd;
    if (readWrite) {
      fd.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
      if (!fd.valid() || ::fstat(fd.get(), &status) != 0) {
        error = path + ": " + std::strerror(errno);
        return false;
      }
    } else {
      std::string why;
      fd.reset(Beacon::Util::openRegularFile(path, why, &status));
      if (!fd.valid()) {
        error = path + ": " + why;
        return false;
      }
    }
    // An empty file still gets a one-page mapping (never touched), so that
    // the process shows up in its maps file.
    long page = ::sysconf(_SC_PAGESIZE);
    length_ = status.st_size > 0 ? static_cast<std::size_t>(status.st_size) : static_cast<std::size_t>(page);
    address_ = ::mmap(nullptr, length_, readWrite ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd.get(), 0);
    if (address_ == MAP_FAILED) {
      error = path + ": mmap: " + std::strerror(errno);
      return false;
    }
    return true;
  }

 private:
  void* address_ = MAP_FAILED;
  std::size_t length_ = 0;
};

}  // namespace

int commandShadow(const ShadowSettings& settings) {
  const unsigned long long duration = settings.seconds;
  const bool readWrite = settings.readWrite;
  // Block the stop signals before anything else, so none is lost between
  // the announcement and the wait.
  Beacon::StopSignals stop({SIGTERM, SIGINT});

  const std::vector<std::string>& names = settings.names;
  std::vector<std::string> paths;
  // Two mappings per table, released when the command returns.
  std::vector<std::unique_ptr<Mapping>> mappings;
  for (const std::string& tableName : names) {
    Mem::OrbRootPath root(handler(), tableName, false);
    for (const char* file : {"relay.1", "ember"}) {
      // A table whose writer never ran has no ember yet: nothing to map.
      struct stat status {};
      if (std::strcmp(file, "ember") == 0 && ::stat(root.fullPath(file).c_str(), &status) != 0) {
        continue;
      }
      mappings.push_back(std::make_unique<Mapping>());
      std::string error;
      if (!mappings.back()->map(root.fullPath(file), readWrite, error)) {
        std::cerr << "heron-sim shadow: " << error << '\n';
        return 1;
      }
    }
    paths.push_back(root.path());
  }
  for (const std::string& path : paths) {
    std::cout << "shadow " << ::getpid() << " attached to " << path << '\n';
  }
  std::cout.flush();

  constexpr long long kNsPerSecond = 1000000000LL;
  stop.waitNs(duration == 0 ? -1 : static_cast<long long>(duration) * kNsPerSecond);
  return 0;
}

}  // namespace Sim

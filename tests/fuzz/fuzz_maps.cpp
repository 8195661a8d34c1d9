// A process's maps text, as the client reports read /proc/<pid>/maps: the
// input is the maps file of one process of a fake process table, read in
// both forms (one table's files, and every table by directory).
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "HeronClientScanner.h"
#include "Mem/RootPath.h"

namespace {

// The fake process 4711 gets a name (its exe link) once; its maps file is
// rewritten for every input.
const std::string& processDir() {
  static const std::string dir = [] {
    std::string path = HeronFuzz::tableDir().file("4711");
    ::mkdir(path.c_str(), 0755);
    if (::symlink("/usr/bin/fuzz-writer", (path + "/exe").c_str()) != 0) {
      std::abort();
    }
    return path;
  }();
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string mapsName = processDir().substr(HeronFuzz::tableDir().path().size() + 1) + "/maps";
  HeronFuzz::writeTableFile(mapsName, data, size);
  const Mem::OrbRootPath table(HeronFuzz::handler(), "/heron-fuzz/md/quotes", false);
  HeronFuzz::NullStream out;
  const Heron::HeronClientScanner scanner(&out, table, "md/quotes", HeronFuzz::tableDir().path());
  const std::string mapsPath = HeronFuzz::tableDir().file(mapsName);
  std::vector<Heron::MmapInfo> mappings;
  scanner.extractMmapInfo(mapsPath, mappings);
  Heron::HeronClientScanner::TableToInfoMap tables;
  scanner.extractMmapInfoByTable(mapsPath, tables);
  for (const Heron::MmapInfo& info : mappings) {
    out << info.toTraceString();
  }
  return 0;
}

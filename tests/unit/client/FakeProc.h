// Test helpers: a temporary directory tree shaped like /proc (numbered
// directories with a maps file, an exe link and a cmdline file) and a
// scanner pointed at it.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "Beacon/Platform.h"
#include "HeronClientScanner.h"
#include "Mem/RootPath.h"
#include "support/Run.h"
#include "support/TempDir.h"

namespace HeronTest {

// A fake process table under a temp directory.
class FakeProc {
 public:
  const std::string& root() const { return dir_.path(); }

  // Adds process directory `name` with its maps text, an exe link to
  // `exeTarget` (none when empty) and a cmdline (NUL-separated words).
  void addProcess(const std::string& name, const std::string& maps, const std::string& exeTarget,
                  const std::string& cmdline = "") {
    std::string dir = root() + "/" + name;
    ::mkdir(dir.c_str(), 0755);
    writeFile(dir + "/maps", maps);
    if (!exeTarget.empty()) {
      int ignored = ::symlink(exeTarget.c_str(), (dir + "/exe").c_str());
      (void)ignored;
    }
    writeFile(dir + "/cmdline", cmdline);
  }
  // A directory without a maps file, and a plain file.
  void addDirWithoutMaps(const std::string& name) { ::mkdir((root() + "/" + name).c_str(), 0755); }
  void addPlainFile(const std::string& name) { writeFile(root() + "/" + name, "x\n"); }

 private:
  TempDir dir_;
};

// One maps line of the kernel's shape.
inline std::string mapsLine(const std::string& permissions, const std::string& path) {
  std::string line = "f7a1c000-f7a5c000 " + permissions + " 00000000 fd:01 1234567";
  if (!path.empty()) {
    line += "                   " + path;
  }
  return line + "\n";
}

inline Beacon::Platform::DebugHandler& scannerHandler() {
  static std::shared_ptr<Beacon::Platform::DebugHandler> handler =
      Beacon::Platform::getDebugHandler("HeronScanner", false);
  return *handler;
}

// Sets the scanner handler's mask for the lifetime of the object.
class TraceMask {
 public:
  explicit TraceMask(std::uint64_t mask) : saved_(scannerHandler().mask()) { scannerHandler().setMask(mask); }
  ~TraceMask() { scannerHandler().setMask(saved_); }
  TraceMask(const TraceMask&) = delete;
  TraceMask& operator=(const TraceMask&) = delete;

 private:
  std::uint64_t saved_;
};

inline Mem::OrbRootPath tableRoot(const std::string& path) { return Mem::OrbRootPath(scannerHandler(), path, false); }

}  // namespace HeronTest

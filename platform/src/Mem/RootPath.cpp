#include "Mem/RootPath.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "Beacon/Trace.h"
#include "Beacon/Util.h"

namespace Mem {

std::ostream& operator<<(std::ostream& out, const RootPath& root) { return out << root.path(); }

std::string canonical(const std::string& path) {
  char resolved[PATH_MAX];
  if (!path.empty() && ::realpath(path.c_str(), resolved) != nullptr) {
    return resolved;
  }
  return path;
}

namespace {

// The collection root as the environment names it, not yet canonicalised.
std::string collectionRootText() {
  const char* env = std::getenv("HERON_ROOT");
  std::string root = (env != nullptr && *env != '\0') ? env : "/dev/shm/heron";
  if (std::getenv("Q7_CHROOT") != nullptr) {
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof cwd) != nullptr) {
      std::string base(cwd);
      if (!base.empty() && base.back() == '/') {
        base.pop_back();
      }
      root = base + (root.front() == '/' ? "" : "/") + root;
    }
  }
  while (root.size() > 1 && root.back() == '/') {
    root.pop_back();
  }
  return root;
}

}  // namespace

std::string OrbRootPath::collectionRoot() { return canonical(collectionRootText()); }

namespace {

std::string resolve(const std::string& path) {
  if (path.empty()) {
    return OrbRootPath::collectionRoot();
  }
  if (path.front() == '/') {
    return canonical(path);
  }
  // One realpath over the whole path when it exists: canonicalising the
  // root first as well would walk its components twice for the same result.
  char resolved[PATH_MAX];
  const std::string full = collectionRootText() + "/" + path;
  if (::realpath(full.c_str(), resolved) != nullptr) {
    return resolved;
  }
  return OrbRootPath::collectionRoot() + "/" + path;
}

}  // namespace

bool checkTablePath(const std::string& path, std::string& error) {
  for (std::size_t i = 0; i < path.size(); ++i) {
    const auto byte = static_cast<unsigned char>(path[i]);
    if (byte <= 0x20 || byte == 0x7F || byte == '\\') {
      const char* what = byte == ' ' ? "a blank" : (byte == '\\' ? "a backslash" : "a control character");
      error = "table name \"" + Beacon::Util::escapeText(path) + "\" holds " + what + " (\"" +
              Beacon::Util::escapeText(std::string(1, path[i])) +
              "\"): client reports could not attribute the table; use printable characters other than blank and "
              "backslash";
      return false;
    }
  }
  return true;
}

OrbRootPath::OrbRootPath(Beacon::Platform::DebugHandler& handler, const std::string& path, bool verbose)
    : RootPath(resolve(path)) {
  if (verbose) {
    Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, "OrbRootPath", "{} resolves to {}", path, this->path());
  }
}

}  // namespace Mem

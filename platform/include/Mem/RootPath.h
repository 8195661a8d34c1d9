// Root paths: the directory of a collection or of one table.
//
// The collection root is $HERON_ROOT when set and not empty, else
// /dev/shm/heron. With Q7_CHROOT set (to anything) the root is taken relative
// to the current directory, because a writer jailed there maps its files
// under the jail as the host sees them. An existing root is canonicalised so
// that fullPath(name) is byte-equal to what the kernel prints in
// /proc/<pid>/maps.
#pragma once

#include <ostream>
#include <string>

#include "Beacon/Platform.h"

namespace Mem {

class RootPath {
 public:
  RootPath() = default;
  explicit RootPath(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  // The full path of file `name` of this root.
  std::string fullPath(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::ostream& operator<<(std::ostream& out, const RootPath& root);

class OrbRootPath : public RootPath {
 public:
  // An empty `path` gives the collection root; a relative one the table of
  // that name under it; an absolute one is used as it stands. With `verbose`
  // the resolution is traced at level 5.
  OrbRootPath(Beacon::Platform::DebugHandler& handler, const std::string& path, bool verbose);

  // The collection root for the current environment and working directory.
  static std::string collectionRoot();
};

// Whether a table may be created at `path` (its full path). The client
// reports find tables in /proc/<pid>/maps, whose lines are split on blanks
// and in which the kernel writes a newline as the four characters "\012":
// a path holding a blank, a control character (bytes 0 to 0x1f and 0x7f) or
// a backslash could not be attributed to its table. False with `error` set
// to one line naming the path (escaped) and the first such byte.
bool checkTablePath(const std::string& path, std::string& error);

// realpath() of `path` when it exists, else `path` unchanged.
std::string canonical(const std::string& path);

}  // namespace Mem

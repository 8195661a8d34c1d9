// Lists the tables of a collection that match an expression.
//
// A table is a directory under the root holding an `owner` file; its name is
// its path relative to the root. Matching:
//   ""                    every table
//   contains * ? or [     fnmatch glob; '*' may cross '/'
//   absolute path         made relative to the root first (the root itself
//                         is every table); an absolute path outside the
//                         root matches when it is itself a table
//   anything else         the names that begin with it
// Matches are in byte order of their names. Symlinked directories are not
// followed; there is no depth limit short of the system's path length.
#pragma once

#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"
#include "SharedMem/SharedMemType.h"

namespace Mem {

class TableFinder {
 public:
  TableFinder(Beacon::Platform::DebugHandler& handler, const RootPath& root);

  // Replaces the match list with the tables of `kind` that match `expr`.
  void find(const char* expr, SharedMem::SharedMemType kind);
  // The same matching over every directory that holds a regular file
  // `owner`, whatever the file holds: tools that report a table whose owner
  // file is damaged still need to name it. Owner files are not read.
  void findOwned(const char* expr);
  const std::vector<std::string>& matches() const { return matches_; }

 private:
  void search(const char* expr, SharedMem::SharedMemType kind);
  bool accepts(const std::string& dir, SharedMem::SharedMemType kind) const;
  void walk(const std::string& dir, const std::string& relative, SharedMem::SharedMemType kind,
            std::vector<std::string>& names) const;

  Beacon::Platform::DebugHandler& handler_;
  RootPath root_;
  std::vector<std::string> matches_;
  bool anyOwner_ = false;
};

}  // namespace Mem

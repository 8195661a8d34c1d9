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

#include <functional>
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

  // The names in a table directory as the walk read them ("." and ".."
  // left out), or null when it could not list the directory (or did not:
  // a table named by an absolute path outside the root).
  using Listing = std::vector<std::string>;

  // What the walk needs of one directory.
  struct Directory {
    bool listed = false;                // false: it could not be listed
    Listing entries;                    // its names, in directory order
    std::vector<std::string> children;  // the subdirectories among them (symlinks are not)
  };
  // Reads `path` as the walk does by default.
  static void readDirectory(Beacon::Platform::DebugHandler& handler, const std::string& path, Directory& out);

  // Where the walk of the *Owned() calls takes each directory from. The
  // default reads it every time; a long-running caller may answer from an
  // earlier read while it knows the directory unchanged. The source must
  // outlive the calls that use it; null restores the default.
  class DirectorySource {
   public:
    virtual ~DirectorySource() = default;
    virtual Directory read(const std::string& path) = 0;
    // Whether `dir` holds a regular file named `owner`.
    virtual bool owned(const std::string& dir) = 0;
  };
  void useSource(DirectorySource* source) { source_ = source; }
  // Whether `dir` holds a regular file named `owner` (lstat, not followed).
  static bool holdsOwnerFile(const std::string& dir);
  // Called for each match, with its listing.
  using Visitor = std::function<void(const std::string& name, const Listing* entries)>;
  // Calls `visit` for every table of `kind` that matches `expr`, in the
  // order the walk meets them (not sorted), each right after its directory
  // was read, so that a reader can take the table's files from that
  // listing instead of reading the directory a second time. The match list
  // is left as it was.
  void visit(const char* expr, SharedMem::SharedMemType kind, const Visitor& visit);
  // The same over the tables findOwned() lists.
  void visitOwned(const char* expr, const Visitor& visit);

  // Whether a name matches a relative pattern as above: a glob when it has
  // a glob character, else a prefix ("" matches every name).
  static bool nameMatches(const std::string& pattern, const std::string& name);

 private:
  // The pattern a name is matched against; false when `expr` is an absolute
  // path outside the root, which names `outside` or nothing.
  bool pattern(const char* expr, std::string& pattern, std::string& outside) const;
  void search(const char* expr, SharedMem::SharedMemType kind);
  void visitMatches(const char* expr, SharedMem::SharedMemType kind, const Visitor& visit) const;
  bool accepts(const std::string& dir, SharedMem::SharedMemType kind) const;
  // Calls `found` for every table of `kind` under `dir`; `relative` is the
  // name of `dir` ("" for the root, which is never a table).
  void walk(const std::string& dir, const std::string& relative, SharedMem::SharedMemType kind,
            const Visitor& found) const;

  Beacon::Platform::DebugHandler& handler_;
  RootPath root_;
  std::vector<std::string> matches_;
  bool anyOwner_ = false;
  DirectorySource* source_ = nullptr;
};

}  // namespace Mem

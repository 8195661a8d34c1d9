#include "Mem/TableFinder.h"

#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "Beacon/DirNode.h"
#include "Beacon/Trace.h"
#include "SharedMem/OwnerFile.h"

namespace Mem {

namespace {

bool isTableOfKind(Beacon::Platform::DebugHandler& handler, const std::string& dir, SharedMem::SharedMemType kind) {
  SharedMem::OwnerFile owner(handler, RootPath(dir), false);
  return owner.status() == SharedMem::LoadStatus::Ok && owner.sharedMemType() == kind;
}

}  // namespace

TableFinder::TableFinder(Beacon::Platform::DebugHandler& handler, const RootPath& root)
    : handler_(handler), root_(root) {}

void TableFinder::walk(const std::string& dir, const std::string& relative, SharedMem::SharedMemType kind,
                       std::vector<std::string>& names) const {
  // No depth limit: symlinked directories are not followed, so the walk
  // cannot cycle, and a path past the system's limit fails to open, which
  // ends that branch. The directory is closed before the walk goes down, so
  // deep trees do not hold one descriptor per level.
  std::vector<std::string> children;
  {
    Beacon::DirNode node(handler_, dir);
    if (!node.isOpen()) {
      return;
    }
    while (const struct dirent* entry = node.readEntry()) {
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
        continue;
      }
      // The entry's own type where the file system gives it (a symlink is
      // DT_LNK, so a symlinked directory is not followed); lstat otherwise.
      if (entry->d_type != DT_DIR) {
        if (entry->d_type != DT_UNKNOWN) {
          continue;
        }
        const std::string child = dir + "/" + entry->d_name;
        struct stat st {};
        if (::lstat(child.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
          continue;
        }
      }
      children.emplace_back(entry->d_name);
    }
  }
  for (const std::string& name : children) {
    std::string childDir = dir + "/" + name;
    std::string childName = relative.empty() ? name : relative + "/" + name;
    if (accepts(childDir, kind)) {
      names.push_back(childName);
    }
    walk(childDir, childName, kind, names);
  }
}

bool TableFinder::accepts(const std::string& dir, SharedMem::SharedMemType kind) const {
  if (!anyOwner_) {
    return isTableOfKind(handler_, dir, kind);
  }
  struct stat st {};
  return ::lstat((dir + "/owner").c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void TableFinder::find(const char* expr, SharedMem::SharedMemType kind) {
  anyOwner_ = false;
  search(expr, kind);
}

void TableFinder::findOwned(const char* expr) {
  anyOwner_ = true;
  search(expr, SharedMem::Unknown);
}

void TableFinder::search(const char* expr, SharedMem::SharedMemType kind) {
  matches_.clear();
  std::string pattern = expr != nullptr ? expr : "";
  const std::string& root = root_.path();

  if (!pattern.empty() && pattern.front() == '/') {
    std::string absolute = canonical(pattern);
    if (absolute == root) {
      // The root itself: every table in it.
      pattern.clear();
    } else if (absolute.size() > root.size() && absolute.compare(0, root.size(), root) == 0 &&
               absolute[root.size()] == '/') {
      pattern = absolute.substr(root.size() + 1);
    } else {
      // Outside the root: the path names a table by itself, or nothing.
      if (accepts(absolute, kind)) {
        matches_.push_back(pattern);
      }
      return;
    }
  }

  std::vector<std::string> names;
  walk(root, "", kind, names);
  std::sort(names.begin(), names.end());

  bool glob = pattern.find_first_of("*?[") != std::string::npos;
  for (const std::string& name : names) {
    bool match =
        glob ? ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0 : name.compare(0, pattern.size(), pattern) == 0;
    if (match) {
      matches_.push_back(name);
    }
  }
  Beacon::fmtrace(handler_, 5, __FILE__, __func__, __LINE__, "TableFinder", "{} of {} tables match '{}'",
                  matches_.size(), names.size(), pattern);
}

}  // namespace Mem

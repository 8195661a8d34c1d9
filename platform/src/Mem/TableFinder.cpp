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

void TableFinder::readDirectory(Beacon::Platform::DebugHandler& handler, const std::string& path, Directory& out) {
  out = Directory();
  Beacon::DirNode node(handler, path);
  if (!node.isOpen()) {
    return;
  }
  out.listed = true;
  while (const struct dirent* entry = node.readEntry()) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
      continue;
    }
    out.entries.emplace_back(entry->d_name);
    // The entry's own type where the file system gives it (a symlink is
    // DT_LNK, so a symlinked directory is not followed); lstat otherwise.
    if (entry->d_type != DT_DIR) {
      if (entry->d_type != DT_UNKNOWN) {
        continue;
      }
      const std::string child = path + "/" + entry->d_name;
      struct stat st {};
      if (::lstat(child.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        continue;
      }
    }
    out.children.emplace_back(entry->d_name);
  }
}

bool TableFinder::holdsOwnerFile(const std::string& dir) {
  struct stat st {};
  return ::lstat((dir + "/owner").c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void TableFinder::walk(const std::string& dir, const std::string& relative, SharedMem::SharedMemType kind,
                       const Visitor& found) const {
  // No depth limit: symlinked directories are not followed, so the walk
  // cannot cycle, and a path past the system's limit fails to open, which
  // ends that branch. The directory is closed before the walk goes down, so
  // deep trees do not hold one descriptor per level.
  Directory read;
  if (source_ != nullptr && anyOwner_) {
    read = source_->read(dir);
  } else {
    readDirectory(handler_, dir, read);
  }
  // A table whose directory cannot be listed (searchable, not readable) is
  // still a table: its readers say why they cannot list it.
  if (!relative.empty() && accepts(dir, kind)) {
    found(relative, read.listed ? &read.entries : nullptr);
  }
  for (const std::string& name : read.children) {
    walk(dir + "/" + name, relative.empty() ? name : relative + "/" + name, kind, found);
  }
}

bool TableFinder::accepts(const std::string& dir, SharedMem::SharedMemType kind) const {
  if (!anyOwner_) {
    return isTableOfKind(handler_, dir, kind);
  }
  return source_ != nullptr ? source_->owned(dir) : holdsOwnerFile(dir);
}

void TableFinder::find(const char* expr, SharedMem::SharedMemType kind) {
  anyOwner_ = false;
  search(expr, kind);
}

void TableFinder::findOwned(const char* expr) {
  anyOwner_ = true;
  search(expr, SharedMem::Unknown);
}

bool TableFinder::pattern(const char* expr, std::string& pattern, std::string& outside) const {
  pattern = expr != nullptr ? expr : "";
  const std::string& root = root_.path();
  if (pattern.empty() || pattern.front() != '/') {
    return true;
  }
  std::string absolute = canonical(pattern);
  if (absolute == root) {
    // The root itself: every table in it.
    pattern.clear();
    return true;
  }
  if (absolute.size() > root.size() && absolute.compare(0, root.size(), root) == 0 && absolute[root.size()] == '/') {
    pattern = absolute.substr(root.size() + 1);
    return true;
  }
  // Outside the root: the path names a table by itself, or nothing.
  outside = std::move(absolute);
  return false;
}

namespace {

// Whether a table's name matches: a glob when the pattern has a glob
// character, a prefix otherwise.
class NameMatcher {
 public:
  explicit NameMatcher(const std::string& pattern)
      : pattern_(pattern), glob_(pattern.find_first_of("*?[") != std::string::npos) {}
  bool operator()(const std::string& name) const {
    return glob_ ? ::fnmatch(pattern_.c_str(), name.c_str(), 0) == 0 : name.compare(0, pattern_.size(), pattern_) == 0;
  }

 private:
  const std::string& pattern_;
  const bool glob_;
};

}  // namespace

bool TableFinder::nameMatches(const std::string& pattern, const std::string& name) {
  return NameMatcher(pattern)(name);
}

void TableFinder::search(const char* expr, SharedMem::SharedMemType kind) {
  matches_.clear();
  std::string text;
  std::string outside;
  if (!pattern(expr, text, outside)) {
    if (accepts(outside, kind)) {
      matches_.push_back(text);
    }
    return;
  }
  const NameMatcher matches(text);
  std::size_t tables = 0;
  walk(root_.path(), "", kind, [this, &matches, &tables](const std::string& name, const Listing*) {
    ++tables;
    if (matches(name)) {
      matches_.push_back(name);
    }
  });
  std::sort(matches_.begin(), matches_.end());
  Beacon::fmtrace(handler_, 5, __FILE__, __func__, __LINE__, "TableFinder", "{} of {} tables match '{}'",
                  matches_.size(), tables, text);
}

void TableFinder::visit(const char* expr, SharedMem::SharedMemType kind, const Visitor& visit) {
  anyOwner_ = false;
  visitMatches(expr, kind, visit);
}

void TableFinder::visitOwned(const char* expr, const Visitor& visit) {
  anyOwner_ = true;
  visitMatches(expr, SharedMem::Unknown, visit);
}

void TableFinder::visitMatches(const char* expr, SharedMem::SharedMemType kind, const Visitor& visit) const {
  std::string text;
  std::string outside;
  if (!pattern(expr, text, outside)) {
    if (accepts(outside, kind)) {
      visit(text, nullptr);
    }
    return;
  }
  const NameMatcher matches(text);
  walk(root_.path(), "", kind, [&matches, &visit](const std::string& name, const Listing* entries) {
    if (matches(name)) {
      visit(name, entries);
    }
  });
}

}  // namespace Mem

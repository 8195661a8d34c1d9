#include "WatchedDirs.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

#include "SharedMem/TableClients.h"

namespace Stat {

namespace {

// Entries added, removed, renamed, written, truncated or changed in mode or
// owner; the directory itself moved or removed. Writes through a mapping
// make no event and need none: the kept mappings see them.
constexpr std::uint32_t kMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_ATTRIB |
                                IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR;

// A quarter of the user's inotify watches; 2,048 when the limit cannot be read.
std::size_t watchBudget() {
  std::ifstream limit("/proc/sys/fs/inotify/max_user_watches");
  unsigned long long watches = 0;
  return limit >> watches && watches >= 4 ? static_cast<std::size_t>(watches / 4) : 2048;
}

}  // namespace

WatchedDirs::WatchedDirs(Beacon::Platform::DebugHandler& handler) : WatchedDirs(handler, watchBudget()) {}

WatchedDirs::WatchedDirs(Beacon::Platform::DebugHandler& handler, std::size_t budget)
    : handler_(handler), fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), budget_(budget) {}

WatchedDirs::~WatchedDirs() = default;

void WatchedDirs::refresh() {
  if (!fd_.valid()) {
    return;
  }
  takeEvents();
  // A path may now lead to another directory with no event to say so: a
  // mount over it, a parent renamed or replaced, a symlink repointed.
  std::vector<std::string> moved;
  for (const auto& kept : dirs_) {
    struct stat st {};
    if (::stat(kept.first.c_str(), &st) != 0 || static_cast<unsigned long long>(st.st_dev) != kept.second.device ||
        static_cast<unsigned long long>(st.st_ino) != kept.second.inode) {
      moved.push_back(kept.first);
    }
  }
  for (const std::string& path : moved) {
    forgetTree(path);
  }
}

void WatchedDirs::takeEvents() {
  alignas(struct inotify_event) char buffer[16 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd_.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return;  // EAGAIN: nothing more
    }
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(struct inotify_event)) <= n;) {
      struct inotify_event event {};
      std::memcpy(&event, buffer + at, sizeof event);
      const char* name = buffer + at + sizeof event;
      at += static_cast<ssize_t>(sizeof event + event.len);
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        forgetAll();
        continue;
      }
      auto path = paths_.find(event.wd);
      if (path == paths_.end()) {
        continue;
      }
      const std::string dir = path->second;
      if ((event.mask & (IN_IGNORED | IN_MOVE_SELF | IN_DELETE_SELF)) != 0) {
        forgetTree(dir);
        if ((event.mask & IN_MOVE_SELF) != 0) {
          ::inotify_rm_watch(fd_.get(), event.wd);  // it now lives elsewhere
        }
        paths_.erase(event.wd);
        continue;
      }
      forget(dir);
      if ((event.mask & IN_ISDIR) != 0 && event.len != 0) {
        forgetTree(dir + "/" + std::string(name, ::strnlen(name, event.len)));
      }
    }
  }
}

void WatchedDirs::forget(const std::string& path) { dirs_.erase(path); }

void WatchedDirs::forgetTree(const std::string& path) {
  const std::string below = path + "/";
  for (auto it = dirs_.begin(); it != dirs_.end();) {
    const bool inside = it->first == path || it->first.compare(0, below.size(), below) == 0;
    it = inside ? dirs_.erase(it) : std::next(it);
  }
}

void WatchedDirs::forgetAll() { dirs_.clear(); }

Mem::TableFinder::Directory WatchedDirs::read(const std::string& path) {
  auto kept = dirs_.find(path);
  if (kept != dirs_.end()) {
    return kept->second.directory;
  }
  Entry entry;
  entry.wd = fd_.valid() && paths_.size() < budget_ ? ::inotify_add_watch(fd_.get(), path.c_str(), kMask) : -1;
  // Read after the watch is in place: a change from now on is an event.
  struct stat st {};
  if (entry.wd >= 0 && ::stat(path.c_str(), &st) != 0) {
    ::inotify_rm_watch(fd_.get(), entry.wd);  // cannot be told apart from its successor: not kept
    entry.wd = -1;
  }
  entry.device = static_cast<unsigned long long>(st.st_dev);
  entry.inode = static_cast<unsigned long long>(st.st_ino);
  Mem::TableFinder::readDirectory(handler_, path, entry.directory);
  entry.owned = Mem::TableFinder::holdsOwnerFile(path);
  std::uint64_t device = 0;
  if (SharedMem::mappedDevice(path, device)) {
    entry.mappedDevice = device;
  }
  ++reads_;
  if (entry.wd < 0) {
    return entry.directory;
  }
  auto previous = paths_.find(entry.wd);
  if (previous != paths_.end() && previous->second != path) {
    forgetTree(previous->second);  // the same directory under its new name
  }
  paths_[entry.wd] = path;
  entry.version = nextVersion_++;
  return dirs_.emplace(path, std::move(entry)).first->second.directory;
}

bool WatchedDirs::owned(const std::string& dir) {
  auto kept = dirs_.find(dir);
  return kept != dirs_.end() ? kept->second.owned : Mem::TableFinder::holdsOwnerFile(dir);
}

bool WatchedDirs::device(const std::string& dir, std::optional<std::uint64_t>& device) const {
  auto kept = dirs_.find(dir);
  if (kept == dirs_.end()) {
    return false;
  }
  device = kept->second.mappedDevice;
  return true;
}

std::uint64_t WatchedDirs::version(const std::string& dir) const {
  auto kept = dirs_.find(dir);
  return kept != dirs_.end() ? kept->second.version : 0;
}

}  // namespace Stat

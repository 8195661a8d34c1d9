// The collection's directories as heron-stat's long-running modes last read
// them, kept while an inotify watch vouches that they have not changed: a
// sample of an unchanged collection then lists no directory and stats no
// file (one sample of 100 tables otherwise makes about 1,500 such calls).
//
// A directory is watched before it is read, so a change after the read is
// an event. Events are taken at the start of each sample (refresh()); the
// directory they name is read again, and so is everything below an entry
// that was a directory (moved, removed or replaced). A lost event (queue
// overflow) makes every directory be read again, and so does a path that
// now leads to another directory (one stat a directory a sample: a mount
// over it, a parent replaced, a symlink repointed make no event). Where no watch can be had (inotify unavailable,
// the watch limit reached) the directory is read every time.
//
// One thread; owns its inotify instance.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "Beacon/Platform.h"
#include "Beacon/UniqueFd.h"
#include "Mem/TableFinder.h"

namespace Stat {

class WatchedDirs : public Mem::TableFinder::DirectorySource {
 public:
  explicit WatchedDirs(Beacon::Platform::DebugHandler& handler);
  // At most `budget` watches at once (tests).
  WatchedDirs(Beacon::Platform::DebugHandler& handler, std::size_t budget);
  ~WatchedDirs() override;
  WatchedDirs(const WatchedDirs&) = delete;
  WatchedDirs& operator=(const WatchedDirs&) = delete;

  // Takes the events since the last call, and checks that every kept path
  // still leads to the directory that was read.
  void refresh();

  Mem::TableFinder::Directory read(const std::string& path) override;
  bool owned(const std::string& dir) override;

  // Stays the same while `dir` is watched and unchanged since it was last
  // read; 0 when nothing vouches for it (its files must be looked at).
  std::uint64_t version(const std::string& dir) const;

  // The device of `dir` as SharedMem::mappedDevice() gave it when `dir` was
  // last read (empty: none the walk of mappings can use); false when `dir`
  // is not kept.
  bool device(const std::string& dir, std::optional<std::uint64_t>& device) const;

  // How many times a directory was read from the file system.
  std::uint64_t reads() const { return reads_; }

 private:
  struct Entry {
    int wd = -1;
    std::uint64_t version = 0;
    Mem::TableFinder::Directory directory;
    bool owned = false;
    // What stat gave just before the read: the path must still lead there.
    unsigned long long device = 0;
    unsigned long long inode = 0;
    std::optional<std::uint64_t> mappedDevice;
  };

  void forget(const std::string& path);
  void forgetTree(const std::string& path);
  void forgetAll();
  void takeEvents();

  Beacon::Platform::DebugHandler& handler_;
  Beacon::UniqueFd fd_;
  std::size_t budget_;
  std::unordered_map<std::string, Entry> dirs_;
  std::unordered_map<int, std::string> paths_;  // by watch descriptor
  std::uint64_t nextVersion_ = 1;
  std::uint64_t reads_ = 0;
};

}  // namespace Stat

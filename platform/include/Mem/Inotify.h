// Directory-change notifications.
//
// A WatchDescriptor owns one inotify instance watching one directory and
// delivers each event, when poll() is called, to its Watcher on the calling
// thread. Watching needs no write access to the directory.
#pragma once

#include <string>

#include "Beacon/Debuggable.h"

namespace Mem {

namespace InotifyMgr {

class Watcher : public Beacon::Debuggable {
 public:
  using Beacon::Debuggable::Debuggable;
  ~Watcher() override = default;
  // `flags` is the inotify event mask (IN_DELETE is 0x200).
  virtual void notify(const std::string& fileName, unsigned flags) = 0;
  virtual void recordInotifyEvent(const std::string& /*fileName*/) {}
  virtual void purgeInotifyRecord() {}
};

}  // namespace InotifyMgr

class WatchDescriptor {
 public:
  WatchDescriptor() = default;
  ~WatchDescriptor();
  WatchDescriptor(const WatchDescriptor&) = delete;
  WatchDescriptor& operator=(const WatchDescriptor&) = delete;

  // Starts watching `directory` for creation, deletion and modification.
  bool enable(const std::string& directory, InotifyMgr::Watcher& watcher);
  // Stops watching; no further notify calls.
  void disable();
  bool enabled() const { return fd_ >= 0; }
  // Delivers the events queued so far; returns how many were delivered.
  int poll();

 private:
  int fd_ = -1;
  int wd_ = -1;
  InotifyMgr::Watcher* watcher_ = nullptr;
};

}  // namespace Mem

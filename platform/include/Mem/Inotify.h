// Directory-change notifications.
//
// The process has one inotify instance (InotifyMgr), shared by every
// WatchDescriptor: enabling a descriptor adds a watch to it, disabling one
// removes the watch. Closing an inotify instance makes the kernel wait for a
// grace period (milliseconds); removing a watch does not, so a program that
// watches thousands of table directories one after the other pays that wait
// once, at exit, instead of once per table.
//
// Events are delivered only by WatchDescriptor::poll(), on the calling
// thread, and only to that descriptor's Watcher. Events read from the shared
// instance for other descriptors wait in those descriptors' own queues until
// they poll. Two descriptors may watch the same directory; each receives
// every event of it. Watching needs no write access to the directory.
//
// Thread safety: descriptors may be enabled, disabled and polled from
// several threads; one descriptor is used by one thread at a time.
// A process that forks without exec gets a fresh instance in the child on
// first use; descriptors enabled before the fork deliver nothing there.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "Beacon/Debuggable.h"
#include "Beacon/UniqueFd.h"

namespace Mem {

class WatchDescriptor;

class InotifyMgr {
 public:
  class Watcher : public Beacon::Debuggable {
   public:
    using Beacon::Debuggable::Debuggable;
    ~Watcher() override = default;
    // `flags` is the inotify event mask (IN_DELETE is 0x200; IN_IGNORED once
    // the watched directory is gone; IN_Q_OVERFLOW, with an empty name, when
    // events were lost).
    virtual void notify(const std::string& fileName, unsigned flags) = 0;
    virtual void recordInotifyEvent(const std::string& /*fileName*/) {}
    virtual void purgeInotifyRecord() {}
  };

  // The process's manager. Never destroyed, so that descriptors released
  // during static destruction still find it; the kernel closes the instance
  // at exit.
  static InotifyMgr& instance();

  InotifyMgr(const InotifyMgr&) = delete;
  InotifyMgr& operator=(const InotifyMgr&) = delete;

  // Events a descriptor keeps for its next poll(); beyond this one
  // IN_Q_OVERFLOW follows them and later events are dropped until it polls,
  // as the kernel does with its own queue.
  static constexpr std::size_t kMaxPendingEvents = 16384;

  // Watches currently held on the shared instance (one per directory, however
  // many descriptors watch it).
  std::size_t watchCount() const;

 private:
  friend class WatchDescriptor;
  struct Event {
    std::string name;
    unsigned mask;
  };

  InotifyMgr() = default;
  ~InotifyMgr() = default;

  // Adds `descriptor` as a subscriber of `directory`'s watch; the watch
  // descriptor number, or -1 with errno set.
  int add(const std::string& directory, WatchDescriptor& descriptor, unsigned& generation);
  void remove(int wd, unsigned generation, WatchDescriptor& descriptor);
  // Moves the events queued for `descriptor` into `out` after reading what
  // the kernel holds.
  void take(WatchDescriptor& descriptor, unsigned generation, std::vector<Event>& out);

  // The instance of this process, opened on first use (again after a fork);
  // -1 when it cannot be opened. Called with mutex_ held.
  int instanceFd();
  // Reads what the kernel holds into the subscribers' queues. Called with
  // mutex_ held, on an instance this process owns.
  void drainLocked();
  static void queue(WatchDescriptor& descriptor, Event event);

  mutable std::mutex mutex_;
  Beacon::UniqueFd fd_;
  int ownerPid_ = 0;
  // Bumped whenever a new instance replaces the old one (after a fork), so
  // that watch numbers of the old one are never used on the new one.
  unsigned generation_ = 0;
  std::unordered_map<int, std::vector<WatchDescriptor*>> subscribers_;
};

class WatchDescriptor {
 public:
  WatchDescriptor() = default;
  ~WatchDescriptor();
  WatchDescriptor(const WatchDescriptor&) = delete;
  WatchDescriptor& operator=(const WatchDescriptor&) = delete;

  // Starts watching `directory` for creation, deletion and modification.
  // False with errno set when the directory cannot be watched.
  bool enable(const std::string& directory, InotifyMgr::Watcher& watcher);
  // Stops watching; no further notify calls, queued events are dropped.
  void disable();
  bool enabled() const { return wd_ >= 0; }
  // Delivers the events queued so far; returns how many were delivered.
  int poll();

 private:
  friend class InotifyMgr;
  int wd_ = -1;
  unsigned generation_ = 0;
  InotifyMgr::Watcher* watcher_ = nullptr;
  // Filled by the manager under its lock.
  std::vector<InotifyMgr::Event> pending_;
};

}  // namespace Mem

#include "Mem/Inotify.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace Mem {

namespace {

constexpr unsigned kWatchMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO;

}  // namespace

// ----------------------------------------------------------------- InotifyMgr

InotifyMgr& InotifyMgr::instance() {
  // Deliberately never deleted (see the header).
  static InotifyMgr* const manager = new InotifyMgr();
  return *manager;
}

std::size_t InotifyMgr::watchCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return subscribers_.size();
}

int InotifyMgr::instanceFd() {
  const int pid = static_cast<int>(::getpid());
  if (fd_.valid() && ownerPid_ == pid) {
    return fd_.get();
  }
  if (fd_.valid()) {
    // Inherited through fork: the parent keeps reading that instance, so
    // the child must not. Closing our copy only drops a reference.
    fd_.reset();
    subscribers_.clear();
    ++generation_;
  }
  fd_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  ownerPid_ = pid;
  return fd_.get();
}

int InotifyMgr::add(const std::string& directory, WatchDescriptor& descriptor, unsigned& generation) {
  std::lock_guard<std::mutex> lock(mutex_);
  const int fd = instanceFd();
  if (fd < 0) {
    return -1;
  }
  // Events already queued belong to the watches that exist now; read them
  // before a new subscriber of the same directory could see them. With no
  // watch left, what is queued is for nobody and waits for the next read.
  if (!subscribers_.empty()) {
    drainLocked();
  }
  const int wd = ::inotify_add_watch(fd, directory.c_str(), kWatchMask);
  if (wd < 0) {
    return -1;
  }
  subscribers_[wd].push_back(&descriptor);
  generation = generation_;
  return wd;
}

void InotifyMgr::remove(int wd, unsigned generation, WatchDescriptor& descriptor) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (generation != generation_ || ownerPid_ != static_cast<int>(::getpid())) {
    return;  // a watch of an instance this process no longer reads
  }
  auto found = subscribers_.find(wd);
  if (found == subscribers_.end()) {
    return;
  }
  std::vector<WatchDescriptor*>& list = found->second;
  list.erase(std::remove(list.begin(), list.end(), &descriptor), list.end());
  if (list.empty()) {
    subscribers_.erase(found);
    // Fails harmlessly (EINVAL) when the kernel already dropped the watch
    // because the directory is gone.
    ::inotify_rm_watch(fd_.get(), wd);
  }
}

void InotifyMgr::queue(WatchDescriptor& descriptor, Event event) {
  std::vector<Event>& pending = descriptor.pending_;
  if (pending.size() >= kMaxPendingEvents) {
    // As the kernel does with its own queue: one overflow marker, then
    // nothing until the descriptor polls.
    if (pending.back().mask != IN_Q_OVERFLOW) {
      pending.push_back(Event{std::string(), IN_Q_OVERFLOW});
    }
    return;
  }
  pending.push_back(std::move(event));
}

void InotifyMgr::drainLocked() {
  if (!fd_.valid()) {
    return;
  }
  alignas(struct inotify_event) char buffer[16384];
  // A read returns every queued event that fits; one that left room for
  // the largest event emptied the queue, so no read is made to learn that.
  constexpr std::size_t kLargestEvent = sizeof(struct inotify_event) + NAME_MAX + 1;
  for (ssize_t n = sizeof buffer; static_cast<std::size_t>(n) > sizeof buffer - kLargestEvent;) {
    n = ::read(fd_.get(), buffer, sizeof buffer);
    if (n <= 0) {
      break;
    }
    const auto size = static_cast<std::size_t>(n);
    std::size_t at = 0;
    while (at + sizeof(struct inotify_event) <= size) {
      struct inotify_event event {};
      std::memcpy(&event, buffer + at, sizeof event);
      const std::size_t next = at + sizeof(struct inotify_event) + event.len;
      if (next > size) {
        break;
      }
      const char* nameStart = buffer + at + sizeof(struct inotify_event);
      const std::string name = event.len > 0 ? std::string(nameStart, strnlen(nameStart, event.len)) : std::string();
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        // Lost events may concern any watch.
        for (auto& entry : subscribers_) {
          for (WatchDescriptor* descriptor : entry.second) {
            queue(*descriptor, Event{name, event.mask});
          }
        }
      } else {
        auto found = subscribers_.find(event.wd);
        if (found != subscribers_.end()) {
          for (WatchDescriptor* descriptor : found->second) {
            queue(*descriptor, Event{name, event.mask});
          }
          if ((event.mask & IN_IGNORED) != 0) {
            // The kernel has dropped this watch (its directory is gone);
            // its number may be handed out again.
            subscribers_.erase(found);
          }
        }
      }
      at = next;
    }
  }
}

void InotifyMgr::take(WatchDescriptor& descriptor, unsigned generation, std::vector<Event>& out) {
  std::lock_guard<std::mutex> lock(mutex_);
  // An instance inherited through fork belongs to the parent: not read here.
  if (generation == generation_ && ownerPid_ == static_cast<int>(::getpid())) {
    drainLocked();
  }
  out.swap(descriptor.pending_);
  descriptor.pending_.clear();
}

// ------------------------------------------------------------ WatchDescriptor

WatchDescriptor::~WatchDescriptor() { disable(); }

bool WatchDescriptor::enable(const std::string& directory, InotifyMgr::Watcher& watcher) {
  disable();
  const int wd = InotifyMgr::instance().add(directory, *this, generation_);
  if (wd < 0) {
    return false;
  }
  wd_ = wd;
  watcher_ = &watcher;
  return true;
}

void WatchDescriptor::disable() {
  if (wd_ >= 0) {
    InotifyMgr::instance().remove(wd_, generation_, *this);
  }
  wd_ = -1;
  watcher_ = nullptr;
  pending_.clear();
}

int WatchDescriptor::poll() {
  if (wd_ < 0) {
    return 0;
  }
  std::vector<InotifyMgr::Event> events;
  InotifyMgr::instance().take(*this, generation_, events);
  int delivered = 0;
  for (const InotifyMgr::Event& event : events) {
    // A notify() may disable this descriptor; nothing is delivered after.
    if (watcher_ == nullptr) {
      break;
    }
    watcher_->notify(event.name, event.mask);
    ++delivered;
  }
  return delivered;
}

}  // namespace Mem

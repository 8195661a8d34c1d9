#include "Mem/Inotify.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>

namespace Mem {

WatchDescriptor::~WatchDescriptor() { disable(); }

bool WatchDescriptor::enable(const std::string& directory, InotifyMgr::Watcher& watcher) {
  disable();
  fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) {
    return false;
  }
  wd_ = ::inotify_add_watch(fd_, directory.c_str(), IN_CREATE | IN_DELETE | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO);
  if (wd_ < 0) {
    ::close(fd_);
    fd_ = -1;
    return false;
  }
  watcher_ = &watcher;
  return true;
}

void WatchDescriptor::disable() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
  fd_ = -1;
  wd_ = -1;
  watcher_ = nullptr;
}

int WatchDescriptor::poll() {
  int delivered = 0;
  alignas(struct inotify_event) char buffer[4096];
  while (fd_ >= 0) {
    ssize_t n = ::read(fd_, buffer, sizeof buffer);
    if (n <= 0) {
      break;
    }
    std::size_t at = 0;
    while (at + sizeof(struct inotify_event) <= static_cast<std::size_t>(n)) {
      struct inotify_event event {};
      std::memcpy(&event, buffer + at, sizeof event);
      std::size_t next = at + sizeof(struct inotify_event) + event.len;
      if (next > static_cast<std::size_t>(n)) {
        break;
      }
      std::string name = event.len > 0 ? std::string(buffer + at + sizeof(struct inotify_event),
                                                     strnlen(buffer + at + sizeof(struct inotify_event), event.len))
                                       : std::string();
      if (watcher_ != nullptr) {
        watcher_->notify(name, event.mask);
        ++delivered;
      }
      at = next;
    }
  }
  return delivered;
}

}  // namespace Mem

#include "SignalWatch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

namespace Stat {

SignalWatch::SignalWatch() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigset_t blocked = stop;
  sigaddset(&blocked, SIGPIPE);
  blocked_ = ::pthread_sigmask(SIG_BLOCK, &blocked, &previous_) == 0;
  if (blocked_) {
    fd_ = ::signalfd(-1, &stop, SFD_CLOEXEC);
  }
}

SignalWatch::~SignalWatch() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
  // Once a stop was asked for the signals stay blocked: a second one (a
  // supervisor that signals the process and then its group) must not kill
  // a process that is ending with status 0.
  if (blocked_ && !stopped_) {
    ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
}

bool SignalWatch::wait(int milliseconds) {
  if (stopped_ || fd_ < 0) {
    return true;
  }
  pollfd watched{fd_, POLLIN, 0};
  const int ready = ::poll(&watched, 1, milliseconds);
  if (ready < 0) {
    // EINTR: a signal this watch does not take; the caller waits again.
    return errno != EINTR;
  }
  if (ready > 0) {
    signalfd_siginfo info{};
    const ssize_t got = ::read(fd_, &info, sizeof info);
    stopped_ = got == static_cast<ssize_t>(sizeof info);
  }
  return stopped_;
}

}  // namespace Stat

#include "Beacon/StopSignals.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <ctime>

namespace Beacon {

StopSignals::StopSignals(std::initializer_list<int> stops, std::initializer_list<int> quiet) {
  ::sigemptyset(&stops_);
  for (int signal : stops) {
    ::sigaddset(&stops_, signal);
  }
  sigset_t all = stops_;
  for (int signal : quiet) {
    ::sigaddset(&all, signal);
  }
  blocked_ = ::pthread_sigmask(SIG_BLOCK, &all, &previous_) == 0;
  if (blocked_) {
    // A signal that came before the descriptor existed is read from it too:
    // it is pending, and a signalfd reports what is pending.
    fd_.reset(::signalfd(-1, &all, SFD_CLOEXEC | SFD_NONBLOCK));
  }
}

StopSignals::~StopSignals() {
  // A stop that a caller only polled fd() for is still pending: read it, so
  // that it is neither lost nor delivered once the mask is restored.
  drain();
  fd_.reset();
  if (blocked_ && !(keepBlocked_ && stopped_ != 0)) {
    ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
}

int StopSignals::drain() {
  signalfd_siginfo info{};
  while (fd_.valid() && ::read(fd_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    const int signal = static_cast<int>(info.ssi_signo);
    if (stopped_ == 0 && ::sigismember(&stops_, signal) == 1) {
      stopped_ = signal;
    }
  }
  return stopped_;
}

int StopSignals::waitNs(long long ns) {
  if (drain() != 0 || !fd_.valid()) {
    return stopped_;
  }
  constexpr long long kNsPerSecond = 1000000000LL;
  timespec end{};
  ::clock_gettime(CLOCK_MONOTONIC, &end);
  const long long endNs = static_cast<long long>(end.tv_sec) * kNsPerSecond + end.tv_nsec + (ns > 0 ? ns : 0);
  while (ns != 0) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const long long left = endNs - (static_cast<long long>(now.tv_sec) * kNsPerSecond + now.tv_nsec);
    if (ns > 0 && left <= 0) {
      break;
    }
    const timespec timeout{static_cast<time_t>(left / kNsPerSecond), static_cast<long>(left % kNsPerSecond)};
    pollfd watch{fd_.get(), POLLIN, 0};
    const int ready = ::ppoll(&watch, 1, ns > 0 ? &timeout : nullptr, nullptr);
    if (ready < 0 && errno != EINTR) {
      break;
    }
    if (drain() != 0) {
      break;
    }
  }
  return stopped_;
}

}  // namespace Beacon

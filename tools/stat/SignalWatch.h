// SIGTERM and SIGINT taken as a request to stop, read from a signalfd.
#pragma once

#include <signal.h>

namespace Stat {

// Blocks SIGTERM, SIGINT and SIGPIPE in the calling thread (and so in every
// thread it starts afterwards: create it before them) and restores the
// previous mask on destruction. SIGPIPE stays blocked so that a client that
// hangs up mid-answer costs an error return, not the process. Once a stop
// has been seen, the mask is left as it is, so that a second signal cannot
// kill a process that is ending cleanly.
class SignalWatch {
 public:
  SignalWatch();
  ~SignalWatch();
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  // False when the signals could not be blocked or watched (errno says why).
  bool ok() const { return fd_ >= 0; }

  // Waits up to `milliseconds` (0: not at all); true once SIGTERM or SIGINT
  // has come (and from then on, without waiting).
  bool wait(int milliseconds);

  // Readable when a signal is pending, for a caller's own poll().
  int fd() const { return fd_; }

 private:
  sigset_t previous_{};
  bool blocked_ = false;
  bool stopped_ = false;
  int fd_ = -1;
};

}  // namespace Stat

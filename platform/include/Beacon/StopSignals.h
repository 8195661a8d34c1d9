// The one way heron's programs stop on a signal: the signals that ask for a
// stop are blocked and read from a signalfd, so that no handler runs and no
// global flag is needed, a wait for work is also a wait for them, and a
// signal never cuts a report or a write short.
//
// Thread rules: create it in the main thread before any other thread starts
// (they inherit the mask, so no thread takes a stop signal with its default
// action). One owner; not shared between threads except for fd(), which a
// thread may poll.
#pragma once

#include <signal.h>

#include <initializer_list>

#include "Beacon/UniqueFd.h"

namespace Beacon {

class StopSignals {
 public:
  // Blocks `stops` (the signals that ask for a stop) and `quiet` (signals to
  // take as events rather than die of: SIGCHLD, SIGPIPE). The mask is
  // restored on destruction, unless keepBlockedAfterStop() asked otherwise
  // and a stop came: a second Ctrl-C must not kill a program that is ending
  // cleanly.
  explicit StopSignals(std::initializer_list<int> stops = {SIGINT, SIGTERM, SIGHUP},
                       std::initializer_list<int> quiet = {});
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // False when the signals could not be blocked or watched (errno says why).
  bool ok() const { return fd_.valid(); }
  // Readable while a signal of either set is pending.
  int fd() const { return fd_.get(); }

  // Waits up to `ns` nanoseconds (0: not at all, negative: without end) for
  // a stop; the stop signal, or 0. Once a stop came it is returned at once.
  int waitNs(long long ns);
  // Reads what is pending without waiting; the stop signal seen, or 0.
  int drain();
  // The first stop signal seen, 0 while none came.
  int stopped() const { return stopped_; }

  void keepBlockedAfterStop() { keepBlocked_ = true; }

 private:
  sigset_t stops_{};
  sigset_t previous_{};
  bool blocked_ = false;
  bool keepBlocked_ = false;
  int stopped_ = 0;
  UniqueFd fd_;
};

}  // namespace Beacon

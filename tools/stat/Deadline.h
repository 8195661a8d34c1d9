// A deadline on a thread of its own: --check --timeout gives its verdict
// even when the sample is stuck in a system call on the main thread.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Stat {

class Deadline {
 public:
  // Calls `expire` on the deadline's thread once `seconds` have passed,
  // unless cancel() came first. `expire` runs under the deadline's lock, so
  // a cancel() that races with it waits until it is done (or the process,
  // which `expire` may end with _exit, is gone).
  Deadline(double seconds, std::function<void()> expire);
  ~Deadline();
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  // True when the deadline had not passed: `expire` was not and will not be
  // called.
  bool cancel();

 private:
  void wait(double seconds);

  std::function<void()> expire_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool cancelled_ = false;
  bool expired_ = false;
  std::thread thread_;
};

}  // namespace Stat

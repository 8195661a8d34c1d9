#include "Deadline.h"

#include <chrono>

namespace Stat {

Deadline::Deadline(double seconds, std::function<void()> expire)
    : expire_(std::move(expire)), thread_([this, seconds] { wait(seconds); }) {}

Deadline::~Deadline() { cancel(); }

void Deadline::wait(double seconds) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  std::unique_lock<std::mutex> lock(mutex_);
  if (wake_.wait_until(lock, until, [this] { return cancelled_; })) {
    return;
  }
  expired_ = true;
  expire_();
}

bool Deadline::cancel() {
  bool inTime = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    inTime = !expired_;
    cancelled_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) {
    thread_.join();
  }
  return inTime;
}

}  // namespace Stat

#include "Beacon/Clock.h"

#include <ctime>

namespace Beacon {

namespace {

std::uint64_t read(clockid_t clock) {
  struct timespec now {};
  ::clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

std::uint64_t nowNs() { return read(CLOCK_REALTIME); }

std::uint64_t monoNs() { return read(CLOCK_MONOTONIC); }

double monoSeconds() { return static_cast<double>(monoNs()) / 1e9; }

double time() {
  struct timespec now {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace Beacon

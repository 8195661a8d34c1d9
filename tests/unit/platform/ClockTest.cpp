// The runtime's clocks: one implementation each, whatever name reaches it.
#include <gtest/gtest.h>

#include <cmath>

#include "Beacon/Clock.h"
#include "SharedMem/Ember.h"

namespace {

TEST(Clock, TheEmbersClocksAreTheRuntimes) {
  EXPECT_EQ(&SharedMem::nowNs, &Beacon::nowNs);
  EXPECT_EQ(&SharedMem::monoNs, &Beacon::monoNs);
}

TEST(Clock, WallClockInNanosecondsAgreesWithSeconds) {
  const double seconds = Beacon::time();
  const double fromNs = static_cast<double>(Beacon::nowNs()) * 1e-9;
  EXPECT_LT(std::fabs(fromNs - seconds), 5.0);
}

TEST(Clock, MonotonicSecondsLieBetweenTheNanosecondsReadAround) {
  const std::uint64_t before = Beacon::monoNs();
  const double seconds = Beacon::monoSeconds();
  const std::uint64_t after = Beacon::monoNs();
  EXPECT_GE(seconds, static_cast<double>(before) / 1e9);
  EXPECT_LE(seconds, static_cast<double>(after) / 1e9);
}

TEST(Clock, MonotonicClockNeverGoesBack) {
  const std::uint64_t first = Beacon::monoNs();
  const std::uint64_t second = Beacon::monoNs();
  EXPECT_LE(first, second);
}

}  // namespace

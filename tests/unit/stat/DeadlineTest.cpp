#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "Deadline.h"

namespace {

TEST(StatDeadline, CancelledInTimeNeverExpires) {
  std::atomic<int> calls{0};
  {
    Stat::Deadline deadline(3600, [&calls] { ++calls; });
    EXPECT_TRUE(deadline.cancel());
  }
  EXPECT_EQ(calls.load(), 0);
}

TEST(StatDeadline, ExpiresOnItsOwnThreadWhileTheCallerIsBusy) {
  std::atomic<int> calls{0};
  Stat::Deadline deadline(0.001, [&calls] { ++calls; });
  // The caller is "stuck"; it polls instead, with a generous limit.
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (calls.load() == 0 && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(calls.load(), 1);
  EXPECT_FALSE(deadline.cancel());
  EXPECT_EQ(calls.load(), 1);
}

TEST(StatDeadline, DestroyingItCancels) {
  std::atomic<int> calls{0};
  {
    Stat::Deadline deadline(3600, [&calls] { ++calls; });
  }
  EXPECT_EQ(calls.load(), 0);
}

}  // namespace

// Whether a child of the support runner ended by itself with status 0,
// for EXPECT_TRUE / ASSERT_TRUE: the failure says how it ended and what it
// said on standard error.
#pragma once

#include <gtest/gtest.h>

#include "support/Child.h"

namespace HeronTest {

inline ::testing::AssertionResult endedWell(const RunResult& result) {
  if (result.exited() && result.status == 0) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << result.describe() << ": " << result.err;
}

}  // namespace HeronTest

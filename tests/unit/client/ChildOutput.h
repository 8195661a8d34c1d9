// Runs a function in a forked child (optionally as another user) and returns
// what the child wrote to standard output and standard error, and its status
// (128 + the signal that ended it).
#pragma once

#include <grp.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/Child.h"

namespace HeronTest {

struct ChildResult {
  std::string out;
  std::string err;
  int status = -1;
};

// `uid` < 0 keeps the current user. The child's return value is its status.
inline ChildResult runInChild(int uid, const std::function<int()>& body) {
  Child child([uid, &body] {
    if (uid >= 0 &&
        (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 || ::setresuid(uid, uid, uid) != 0)) {
      return 99;
    }
    return body();
  });
  const RunResult run = child.wait();
  ChildResult result;
  result.out = run.out;
  result.err = run.err;
  result.status = run.signal != 0 ? 128 + run.signal : run.status;
  return result;
}

}  // namespace HeronTest

// Runs a function in a forked child (optionally as another user) and returns
// what the child wrote to standard output and standard error.
#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

namespace HeronTest {

struct ChildResult {
  std::string out;
  std::string err;
  int status = -1;
};

inline std::string drain(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<std::size_t>(n));
  }
  return text;
}

// `uid` < 0 keeps the current user. The child's return value is its status.
inline ChildResult runInChild(int uid, const std::function<int()>& body) {
  ChildResult result;
  int outPipe[2];
  int errPipe[2];
  if (::pipe(outPipe) != 0 || ::pipe(errPipe) != 0) {
    return result;
  }
  pid_t child = ::fork();
  if (child == 0) {
    ::dup2(outPipe[1], 1);
    ::dup2(errPipe[1], 2);
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    if (uid >= 0 &&
        (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 || ::setresuid(uid, uid, uid) != 0)) {
      ::_exit(99);
    }
    int status = body();
    std::fflush(nullptr);
    ::_exit(status);
  }
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  // Output stays small in these tests, so reading one pipe after the other
  // cannot block the child.
  result.out = drain(outPipe[0]);
  result.err = drain(errPipe[0]);
  ::close(outPipe[0]);
  ::close(errPipe[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace HeronTest

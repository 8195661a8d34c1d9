#include "support/Child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace HeronTest {

namespace {

// Sanitizer settings pass through so that a sanitized child reports the
// same way as the test process.
const char* const kInherited[] = {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"};

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  result.reserve(strings.size() + 1);
  for (std::string& text : strings) {
    result.push_back(text.data());
  }
  result.push_back(nullptr);
  return result;
}

double monotonicSeconds() {
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A bare name is looked up in PATH as a shell would; a path is kept.
std::string resolve(const std::string& program) {
  const char* path = std::getenv("PATH");
  if (program.empty() || program.find('/') != std::string::npos || path == nullptr) {
    return program;
  }
  std::istringstream dirs(path);
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
    if (::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return program;
}

void closeBoth(int fds[2]) {
  for (int i = 0; i < 2; ++i) {
    if (fds[i] >= 0) {
      ::close(fds[i]);
      fds[i] = -1;
    }
  }
}

ChildOptions placed(const std::string& cwd, const std::string& argv0) {
  ChildOptions options;
  options.cwd = cwd;
  options.argv0 = argv0;
  return options;
}

// In the forked child, before execve: only async-signal-safe calls.
bool setUp(const ChildOptions& options, int out, int err) {
  const int devNull = ::open("/dev/null", O_RDONLY);
  if (devNull < 0 || ::dup2(devNull, 0) < 0 || ::dup2(err, 2) < 0) {
    return false;
  }
  switch (options.output) {
    case ChildOptions::Output::Captured:
      if (::dup2(out, 1) < 0) {
        return false;
      }
      break;
    case ChildOptions::Output::Closed:
      ::close(1);
      break;
    case ChildOptions::Output::File: {
      const int file = ::open(options.outputFile.c_str(), O_WRONLY);
      if (file < 0 || ::dup2(file, 1) < 0) {
        return false;
      }
      break;
    }
  }
  if (options.noFileGrowth) {
    struct rlimit none {
      0, 0
    };
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    if (::setrlimit(RLIMIT_FSIZE, &none) != 0 || ::sigaction(SIGXFSZ, &ignore, nullptr) != 0) {
      return false;
    }
  }
  return options.cwd.empty() || ::chdir(options.cwd.c_str()) == 0;
}

}  // namespace

std::string RunResult::describe() const {
  if (timedOut) {
    return "timed out";
  }
  if (signal != 0) {
    return "signal " + std::to_string(signal);
  }
  return "status " + std::to_string(status);
}

Child::Child(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& cwd,
             const std::string& argv0)
    : Child(argv, env, placed(cwd, argv0)) {}

Child::Child(const std::vector<std::string>& argv, const std::vector<std::string>& env, const ChildOptions& options) {
  if (argv.empty()) {
    error_ = "run: empty argv";
    return;
  }
  start(argv, env, options);
}

Child::Child(const std::function<int()>& body) {
  int outPipe[2] = {-1, -1};
  int errPipe[2] = {-1, -1};
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
    closeBoth(outPipe);
    error_ = "run: pipe failed";
    return;
  }
  std::fflush(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    const int status = setUp(ChildOptions{}, outPipe[1], errPipe[1]) ? body() : 127;
    std::fflush(nullptr);
    ::_exit(status);
  }
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  fds_[0] = outPipe[0];
  fds_[1] = errPipe[0];
  if (pid_ < 0) {
    closePipes();
    error_ = "run: fork failed";
  }
}

Child::~Child() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  closePipes();
}

void Child::start(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                  const ChildOptions& options) {
  std::vector<std::string> args = argv;
  if (!options.argv0.empty()) {
    args[0] = options.argv0;
  }
  std::vector<std::string> environment = env;
  for (const char* name : kInherited) {
    if (const char* value = std::getenv(name)) {
      environment.push_back(std::string(name) + "=" + value);
    }
  }
  std::vector<char*> argPointers = pointers(args);
  std::vector<char*> envPointers = pointers(environment);
  const std::string program = resolve(argv[0]);

  // The third pipe carries the errno of a failed execve; it closes unread
  // when execve succeeds.
  int outPipe[2] = {-1, -1};
  int errPipe[2] = {-1, -1};
  int execPipe[2] = {-1, -1};
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0 || ::pipe2(execPipe, O_CLOEXEC) != 0) {
    closeBoth(outPipe);
    closeBoth(errPipe);
    error_ = "run: pipe failed";
    return;
  }
  pid_ = ::fork();
  if (pid_ == 0) {
    if (setUp(options, outPipe[1], errPipe[1])) {
      ::execve(program.c_str(), argPointers.data(), envPointers.data());
    }
    const int failure = errno;
    (void)!::write(execPipe[1], &failure, sizeof failure);
    ::_exit(127);
  }
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  ::close(execPipe[1]);
  fds_[0] = outPipe[0];
  fds_[1] = errPipe[0];
  if (pid_ < 0) {
    ::close(execPipe[0]);
    closePipes();
    error_ = "run: fork failed";
    return;
  }
  int failure = 0;
  ssize_t n;
  while ((n = ::read(execPipe[0], &failure, sizeof failure)) < 0 && errno == EINTR) {
  }
  ::close(execPipe[0]);
  if (n > 0) {
    error_ = "cannot run " + program + ": " + std::strerror(failure);
    result_.err = error_;
    reap(monotonicSeconds() + 10);
  }
}

void Child::closePipes() { closeBoth(fds_); }

bool Child::pump(double deadline) {
  struct pollfd polled[2] = {{fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}};
  if (fds_[0] < 0 && fds_[1] < 0) {
    return false;
  }
  const double left = std::max(0.0, deadline - monotonicSeconds());
  const int ready = ::poll(polled, 2, static_cast<int>(left * 1000) + 1);
  if (ready < 0 && errno != EINTR) {
    closePipes();
    return false;
  }
  std::string* sinks[2] = {&result_.out, &result_.err};
  char buffer[65536];
  for (int i = 0; i < 2 && ready > 0; ++i) {
    if (fds_[i] < 0 || polled[i].revents == 0) {
      continue;
    }
    const ssize_t n = ::read(fds_[i], buffer, sizeof buffer);
    if (n > 0) {
      sinks[i]->append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      ::close(fds_[i]);
      fds_[i] = -1;
    }
  }
  return fds_[0] >= 0 || fds_[1] >= 0;
}

bool Child::waitForLines(std::size_t lines, double timeoutSeconds) {
  const double deadline = monotonicSeconds() + timeoutSeconds;
  auto count = [this] { return static_cast<std::size_t>(std::count(out().begin(), out().end(), '\n')); };
  while (count() < lines && monotonicSeconds() < deadline) {
    if (!pump(deadline)) {
      break;
    }
  }
  return count() >= lines;
}

// Waits for the exit until `deadline`, then kills. True when the child
// exited by itself.
bool Child::reap(double deadline) {
  int wstatus = 0;
  for (;;) {
    const pid_t done = ::waitpid(pid_, &wstatus, WNOHANG);
    if (done == pid_) {
      break;
    }
    if (done < 0 && errno != EINTR) {
      reaped_ = true;
      return false;
    }
    if (monotonicSeconds() >= deadline) {
      result_.timedOut = true;
      ::kill(pid_, SIGKILL);
      while (::waitpid(pid_, &wstatus, 0) < 0 && errno == EINTR) {
      }
      break;
    }
    // Nothing to read any more; a short pause between looks.
    struct timespec pause {
      0, 1000000
    };
    ::nanosleep(&pause, nullptr);
  }
  record(wstatus);
  return !result_.timedOut;
}

void Child::record(int wstatus) {
  reaped_ = true;
  if (WIFEXITED(wstatus)) {
    result_.status = WEXITSTATUS(wstatus);
  } else if (WIFSIGNALED(wstatus)) {
    result_.signal = WTERMSIG(wstatus);
  }
}

bool Child::running() {
  if (pid_ <= 0 || reaped_) {
    return false;
  }
  int wstatus = 0;
  pid_t done;
  while ((done = ::waitpid(pid_, &wstatus, WNOHANG)) < 0 && errno == EINTR) {
  }
  if (done == pid_) {
    record(wstatus);
  }
  return done == 0;
}

RunResult Child::wait(double timeoutSeconds) {
  if (pid_ <= 0 || (reaped_ && fds_[0] < 0 && fds_[1] < 0)) {
    if (pid_ <= 0 && result_.err.empty()) {
      result_.err = error_;
    }
    return result_;
  }
  // A child found ended by running() may still have output in the pipes.
  const double deadline = monotonicSeconds() + timeoutSeconds;
  while (pump(deadline)) {
    if (monotonicSeconds() >= deadline) {
      if (!reaped_) {
        result_.timedOut = true;
        ::kill(pid_, SIGKILL);
      }
      break;
    }
  }
  // Whatever the child's own children still hold open is not waited for.
  closePipes();
  if (!reaped_) {
    reap(deadline);
  }
  return result_;
}

RunResult Child::stop(int signal, double timeoutSeconds) {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, signal);
  }
  return wait(timeoutSeconds);
}

}  // namespace HeronTest

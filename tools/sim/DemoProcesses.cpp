#include "DemoProcesses.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>

#include "Beacon/Clock.h"

namespace Sim {

long long monotonicMs() { return static_cast<long long>(Beacon::monoNs() / 1000000); }

namespace {

void sleepMs(int ms) {
  struct timespec pause {
    0, static_cast<long>(ms) * 1000000L
  };
  ::nanosleep(&pause, nullptr);
}

std::string describeStatus(int status) {
  if (WIFEXITED(status)) {
    return "exited with status " + std::to_string(WEXITSTATUS(status));
  }
  if (WIFSIGNALED(status)) {
    return std::string("was killed by signal ") + ::strsignal(WTERMSIG(status));
  }
  return "stopped";
}

}  // namespace

DemoProcesses::DemoProcesses() {
  char path[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (n > 0) {
    path[n] = '\0';
    self_ = path;
  }
}

DemoProcesses::~DemoProcesses() { stopAll(2000); }

int DemoProcesses::start(const std::string& role, const std::string& table, const std::vector<std::string>& args,
                         std::string& error) {
  if (self_.empty()) {
    error = "cannot find my own executable in /proc/self/exe";
    return -1;
  }
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    error = std::string("pipe: ") + std::strerror(errno);
    return -1;
  }
  std::vector<std::string> argvText;
  argvText.push_back("heron-sim");
  argvText.insert(argvText.end(), args.begin(), args.end());
  std::vector<char*> argv;
  argv.reserve(argvText.size() + 1);
  for (std::string& text : argvText) {
    argv.push_back(&text[0]);
  }
  argv.push_back(nullptr);

  pid_t parent = ::getpid();
  pid_t group = group_;
  pid_t pid = ::fork();
  if (pid < 0) {
    error = std::string("fork: ") + std::strerror(errno);
    ::close(fds[0]);
    ::close(fds[1]);
    return -1;
  }
  if (pid == 0) {
    // Child: only async-signal-safe calls from here to exec.
    if (::setpgid(0, group) != 0) {
      ::setpgid(0, 0);
    }
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) {
      ::_exit(1);  // the demo died before the request took effect
    }
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(fds[1], STDOUT_FILENO);
    int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devNull >= 0) {
      ::dup2(devNull, STDIN_FILENO);
    }
    ::execv(self_.c_str(), argv.data());
    static const char message[] = "heron-sim demo: exec of heron-sim failed\n";
    ssize_t ignored = ::write(STDERR_FILENO, message, sizeof message - 1);
    (void)ignored;
    ::_exit(127);
  }
  // Parent: the same group request, so that it holds whichever runs first.
  if (::setpgid(pid, group) != 0) {
    ::setpgid(pid, pid);
  }
  if (group_ == 0) {
    group_ = pid;
  }
  ::close(fds[1]);
  DemoChild child;
  child.pid = pid;
  child.role = role;
  child.table = table;
  child.outFd = fds[0];
  child.running = true;
  children_.push_back(child);
  return static_cast<int>(children_.size() - 1);
}

void DemoProcesses::readFrom(DemoChild& child) {
  char buffer[512];
  ssize_t n = ::read(child.outFd, buffer, sizeof buffer);
  if (n <= 0) {
    ::close(child.outFd);
    child.outFd = -1;
    return;
  }
  if (child.firstLine.empty() || child.firstLine.back() != '\n') {
    for (ssize_t i = 0; i < n; ++i) {
      child.firstLine.push_back(buffer[i]);
      if (buffer[i] == '\n') {
        break;
      }
    }
  }
}

bool DemoProcesses::waitFirstLines(const std::vector<int>& indices, int timeoutMs) {
  long long deadline = monotonicMs() + timeoutMs;
  while (true) {
    std::vector<struct pollfd> fds;
    std::vector<int> owners;
    for (int index : indices) {
      DemoChild& child = children_[static_cast<std::size_t>(index)];
      bool done = !child.firstLine.empty() && child.firstLine.back() == '\n';
      if (!done && child.outFd >= 0) {
        fds.push_back({child.outFd, POLLIN, 0});
        owners.push_back(index);
      }
    }
    if (fds.empty()) {
      break;
    }
    long long left = deadline - monotonicMs();
    if (left <= 0) {
      break;
    }
    int ready = ::poll(fds.data(), fds.size(), static_cast<int>(left));
    if (ready < 0 && errno != EINTR) {
      break;
    }
    for (std::size_t i = 0; ready > 0 && i < fds.size(); ++i) {
      if (fds[i].revents != 0) {
        readFrom(children_[static_cast<std::size_t>(owners[i])]);
      }
    }
  }
  for (int index : indices) {
    const DemoChild& child = children_[static_cast<std::size_t>(index)];
    if (child.firstLine.empty() || child.firstLine.back() != '\n') {
      return false;
    }
  }
  return true;
}

std::vector<int> DemoProcesses::outputFds() const {
  std::vector<int> fds;
  for (const DemoChild& child : children_) {
    if (child.outFd >= 0) {
      fds.push_back(child.outFd);
    }
  }
  return fds;
}

bool DemoProcesses::anyRunning() const {
  for (const DemoChild& child : children_) {
    if (child.running) {
      return true;
    }
  }
  return false;
}

void DemoProcesses::reap(bool block) {
  for (DemoChild& child : children_) {
    if (!child.running) {
      continue;
    }
    int status = 0;
    pid_t done = ::waitpid(child.pid, &status, block ? 0 : WNOHANG);
    if (done == child.pid || (done < 0 && errno == ECHILD)) {
      child.running = false;
      child.status = status;
      if (!stopping_) {
        std::cerr << "heron-sim demo: " << child.role << " of " << child.table << " (pid " << child.pid << ") "
                  << describeStatus(status) << std::endl;
      }
    }
  }
}

void DemoProcesses::service() {
  for (DemoChild& child : children_) {
    if (child.outFd < 0) {
      continue;
    }
    struct pollfd one {
      child.outFd, POLLIN, 0
    };
    if (::poll(&one, 1, 0) > 0) {
      readFrom(child);
    }
  }
  reap(false);
}

void DemoProcesses::stopAll(int graceMs) {
  stopping_ = true;
  reap(false);
  for (const DemoChild& child : children_) {
    if (child.running) {
      ::kill(child.pid, SIGTERM);
    }
  }
  long long deadline = monotonicMs() + graceMs;
  while (anyRunning() && monotonicMs() < deadline) {
    sleepMs(10);
    reap(false);
  }
  for (const DemoChild& child : children_) {
    if (child.running) {
      std::cerr << "heron-sim demo: " << child.role << " of " << child.table << " (pid " << child.pid
                << ") did not stop; killing it" << std::endl;
      ::kill(child.pid, SIGKILL);
    }
  }
  reap(true);
  for (DemoChild& child : children_) {
    if (child.outFd >= 0) {
      ::close(child.outFd);
      child.outFd = -1;
    }
  }
}

}  // namespace Sim

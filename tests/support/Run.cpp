#include "support/Run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
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

RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& cwd,
              const std::string& argv0, int timeoutSeconds) {
  RunResult result;
  if (argv.empty()) {
    result.err = "run: empty argv";
    return result;
  }
  std::vector<std::string> args = argv;
  if (!argv0.empty()) {
    args[0] = argv0;
  }
  std::vector<std::string> environment = env;
  for (const char* name : kInherited) {
    if (const char* value = std::getenv(name)) {
      environment.push_back(std::string(name) + "=" + value);
    }
  }
  std::vector<char*> argPointers = pointers(args);
  std::vector<char*> envPointers = pointers(environment);
  const std::string program = argv[0];

  int outPipe[2];
  int errPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0) {
    result.err = "run: pipe failed";
    return result;
  }
  if (::pipe2(errPipe, O_CLOEXEC) != 0) {
    ::close(outPipe[0]);
    ::close(outPipe[1]);
    result.err = "run: pipe failed";
    return result;
  }

  pid_t child = ::fork();
  if (child == 0) {
    // Only async-signal-safe calls from here on.
    int devNull = ::open("/dev/null", O_RDONLY);
    if (devNull < 0 || ::dup2(devNull, 0) < 0 || ::dup2(outPipe[1], 1) < 0 || ::dup2(errPipe[1], 2) < 0) {
      ::_exit(127);
    }
    if (!cwd.empty() && ::chdir(cwd.c_str()) != 0) {
      ::_exit(127);
    }
    ::execve(program.c_str(), argPointers.data(), envPointers.data());
    ::_exit(127);
  }
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  if (child < 0) {
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    result.err = "run: fork failed";
    return result;
  }

  struct pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  const double deadline = monotonicSeconds() + timeoutSeconds;
  char buffer[65536];
  while (open > 0) {
    double left = deadline - monotonicSeconds();
    if (left <= 0) {
      result.timedOut = true;
      ::kill(child, SIGKILL);
      break;
    }
    int ready = ::poll(fds, 2, static_cast<int>(left * 1000) + 1);
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    if (ready < 0) {
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) {
        continue;
      }
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (struct pollfd& entry : fds) {
    if (entry.fd >= 0) {
      ::close(entry.fd);
    }
  }

  int wstatus = 0;
  while (::waitpid(child, &wstatus, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(wstatus)) {
    result.status = WEXITSTATUS(wstatus);
  } else if (WIFSIGNALED(wstatus)) {
    result.signal = WTERMSIG(wstatus);
  }
  return result;
}

std::string binary(const std::string& name) {
  const char* dir = std::getenv("HERON_BIN");
  return std::string(dir != nullptr && *dir != '\0' ? dir : "build/bin") + "/" + name;
}

std::string heronBin() { return binary("heron"); }
std::string simBin() { return binary("heron-sim"); }

std::string heronLib() {
  const char* dir = std::getenv("HERON_LIB");
  return std::string(dir != nullptr && *dir != '\0' ? dir : "build/lib") + "/libheron.so";
}

TempRoot::TempRoot() : dir_("heron-test") {
  if (dir_.path().empty()) {
    std::abort();
  }
}

std::vector<std::string> TempRoot::env() const { return {"HERON_ROOT=" + path()}; }

bool TempRoot::create(const std::string& name, const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {simBin(), "create", name};
  argv.insert(argv.end(), args.begin(), args.end());
  RunResult result = run(argv, env());
  if (!result.exited() || result.status != 0) {
    std::fprintf(stderr, "heron-sim create %s failed (%s): %s\n", name.c_str(), result.describe().c_str(),
                 result.err.c_str());
    return false;
  }
  return true;
}

namespace {

// Copies `from` (following symbolic links) to a new file `to` with `mode`.
bool copyFile(const std::string& from, const std::string& to, mode_t mode, std::string& error) {
  std::ifstream in(from, std::ios::binary);
  if (!in) {
    error = "cannot read " + from;
    return false;
  }
  {
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    if (!out.flush()) {
      error = "cannot write " + to;
      return false;
    }
  }
  if (::chmod(to.c_str(), mode) != 0) {
    error = "chmod " + to + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

PublicHeronCopy::PublicHeronCopy() : dir_("heron-public", false, 0755) {
  if (dir_.path().empty()) {
    error_ = "no temporary directory";
    return;
  }
  for (const std::string& dir : {dir_.file("bin"), dir_.file("lib")}) {
    if (::mkdir(dir.c_str(), 0755) != 0) {
      error_ = dir + ": " + std::strerror(errno);
      return;
    }
  }
  if (copyFile(heronBin(), heron(), 0755, error_)) {
    copyFile(heronLib(), dir_.file("lib/libheron.so.0"), 0644, error_);
  }
}

std::vector<std::string> PublicHeronCopy::env() const { return {"LD_LIBRARY_PATH=" + dir_.file("lib")}; }

std::string golden(const std::string& name) {
  const char* source = std::getenv("HERON_SOURCE");
  const std::string path = std::string(source != nullptr && *source != '\0' ? source : ".") + "/tests/golden/" + name;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read golden file %s\n", path.c_str());
    return "";
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  return static_cast<bool>(out);
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace HeronTest

#include "Output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "Beacon/Clock.h"
#include "Beacon/UniqueFd.h"
#include "ReportOutput.h"

namespace Stat {

bool writeAll(int fd, const std::string& text, std::string& error) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      error = n < 0 ? std::strerror(errno) : "short write";
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

Written writeUnlessStopped(int fd, const std::string& text, int stopFd, std::string& error) {
  // A piece that a descriptor reported writable takes without blocking: a
  // pipe with a free slot takes PIPE_BUF bytes at once.
  const std::size_t piece = ::isatty(fd) == 1 ? 256 : PIPE_BUF;
  double stoppedAt = -1;
  std::size_t done = 0;
  while (done < text.size()) {
    // Once asked to stop, a moving reader still gets the rest of the
    // document for a short while; a reader that does not read, nothing more.
    const double now = Beacon::monoSeconds();
    if (stoppedAt >= 0 && now - stoppedAt >= kStopGraceSeconds) {
      return Written::Stopped;
    }
    struct pollfd fds[2] = {{fd, POLLOUT, 0}, {stopFd, POLLIN, 0}};
    const bool watchStop = stopFd >= 0 && stoppedAt < 0;
    const int timeout = stoppedAt < 0 ? -1 : static_cast<int>((kStopGraceSeconds - (now - stoppedAt)) * 1000) + 1;
    if (::poll(fds, watchStop ? 2 : 1, timeout) < 0) {
      if (errno == EINTR) {
        continue;
      }
      error = std::strerror(errno);
      return Written::Failed;
    }
    if (watchStop && (fds[1].revents & POLLIN) != 0) {
      stoppedAt = Beacon::monoSeconds();
    }
    if ((fds[0].revents & POLLNVAL) != 0) {
      error = std::strerror(EBADF);
      return Written::Failed;
    }
    if (fds[0].revents == 0) {
      continue;
    }
    // POLLERR or POLLHUP: the write says what is wrong.
    const ssize_t n = ::write(fd, text.data() + done, std::min(piece, text.size() - done));
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
      continue;
    }
    if (n <= 0) {
      error = n < 0 ? std::strerror(errno) : "short write";
      return Written::Failed;
    }
    done += static_cast<std::size_t>(n);
  }
  return Written::All;
}

namespace {

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool replaceFile(const std::string& path, const std::string& text, std::string& error) {
  return replaceFileBy(
      path, [&text](int fd, std::string& why) { return writeAll(fd, text, why); }, error);
}

bool replaceFileBy(const std::string& path, const std::function<bool(int, std::string&)>& write, std::string& error) {
  const std::size_t slash = path.rfind('/');
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temporary = directoryOf(path) + "/." + base + ".tmp.XXXXXX";
  std::vector<char> name(temporary.begin(), temporary.end());
  name.push_back('\0');
  Beacon::UniqueFd fd(::mkstemp(name.data()));
  if (!fd.valid()) {
    error = path + ": cannot create a temporary file beside it: " + std::strerror(errno);
    return false;
  }
  temporary = name.data();
  bool ok = write(fd.get(), error);
  if (ok && ::fchmod(fd.get(), 0644) != 0) {
    error = std::strerror(errno);
    ok = false;
  }
  // Closed by hand: a failed close can lose what was written.
  if (::close(fd.release()) != 0 && ok) {
    error = std::strerror(errno);
    ok = false;
  }
  // Only a regular file is ever replaced: a device, a FIFO or a link put
  // there since the last report is left alone.
  struct stat st {};
  if (ok && ::lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    error = "not a regular file any more";
    ok = false;
  }
  if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
    error = std::strerror(errno);
    ok = false;
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    error = path + ": " + error;
  }
  return ok;
}

std::string resolvedPath(const std::string& path) {
  std::string absolute = path;
  if (absolute.empty() || absolute.front() != '/') {
    char* cwd = ::getcwd(nullptr, 0);
    absolute = std::string(cwd != nullptr ? cwd : "") + "/" + absolute;
    std::free(cwd);
  }
  std::vector<std::string> parts;
  for (std::size_t at = 0; at < absolute.size();) {
    const std::size_t slash = std::min(absolute.find('/', at), absolute.size());
    if (slash > at) {
      parts.push_back(absolute.substr(at, slash - at));
    }
    at = slash + 1;
  }
  // The longest prefix that exists is resolved by the kernel (links
  // included); the rest, which does not exist yet, by name.
  std::size_t known = parts.size();
  std::string resolved;
  for (;; --known) {
    std::string prefix;
    for (std::size_t i = 0; i < known; ++i) {
      prefix += "/" + parts[i];
    }
    char buffer[PATH_MAX];
    if (::realpath(prefix.empty() ? "/" : prefix.c_str(), buffer) != nullptr) {
      resolved = buffer;
      break;
    }
  }
  for (std::size_t i = known; i < parts.size(); ++i) {
    if (parts[i] == "..") {
      resolved.erase(std::max<std::size_t>(resolved.rfind('/'), 1));
    } else if (parts[i] != ".") {
      resolved += (resolved == "/" ? "" : "/") + parts[i];
    }
  }
  return resolved;
}

bool insideRoot(const std::string& path, const std::string& root) {
  const std::string where = resolvedPath(path);
  const std::string top = resolvedPath(root);
  // By whole components: /dev/shm/heron-other is not inside /dev/shm/heron.
  return where == top || top == "/" ||
         (where.size() > top.size() && where.compare(0, top.size(), top) == 0 && where[top.size()] == '/');
}

std::string refusedOutput(const std::string& path, const std::string& root) {
  if (insideRoot(path, root)) {
    return "inside the collection root";
  }
  const std::string where = resolvedPath(path);
  struct stat st {};
  if (::lstat((directoryOf(where) + "/owner").c_str(), &st) == 0) {
    return "inside a table's directory";
  }
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISREG(st.st_mode)) {
      return "which is not a regular file";
    }
    // Renamed over, a hard link to a table's file would be gone from where
    // an operator finds it; the table's files are never ours to replace.
    if (Heron::isFileUnder(st, {root})) {
      return "which is a table's file";
    }
  }
  return "";
}

}  // namespace Stat

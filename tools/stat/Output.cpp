#include "Output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Mem/RootPath.h"

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
  const std::size_t slash = path.rfind('/');
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temporary = directoryOf(path) + "/." + base + ".tmp.XXXXXX";
  std::vector<char> name(temporary.begin(), temporary.end());
  name.push_back('\0');
  const int fd = ::mkstemp(name.data());
  if (fd < 0) {
    error = path + ": cannot create a temporary file beside it: " + std::strerror(errno);
    return false;
  }
  temporary = name.data();
  bool ok = writeAll(fd, text, error);
  if (ok && ::fchmod(fd, 0644) != 0) {
    error = std::strerror(errno);
    ok = false;
  }
  if (::close(fd) != 0 && ok) {
    error = std::strerror(errno);
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

bool insideRoot(const std::string& path, const std::string& root) {
  const std::string canonicalRoot = Mem::canonical(root);
  // The file may not exist yet: its directory decides.
  std::string where = Mem::canonical(path);
  struct stat st {};
  if (::stat(where.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    where = Mem::canonical(directoryOf(path));
  }
  if (!where.empty() && where.front() != '/') {
    char* cwd = ::getcwd(nullptr, 0);
    if (cwd != nullptr) {
      where = std::string(cwd) + "/" + where;
      std::free(cwd);
    }
  }
  return where == canonicalRoot ||
         (where.size() > canonicalRoot.size() && where.compare(0, canonicalRoot.size(), canonicalRoot) == 0 &&
          where[canonicalRoot.size()] == '/');
}

}  // namespace Stat

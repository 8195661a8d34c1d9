#include "Beacon/Util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Beacon/Trace.h"

namespace Beacon {

void MemoryResourceException::throwException(const std::string& what) { throw MemoryResourceException(what); }

namespace Util {

int openRegularFile(const std::string& path, std::string& error, struct stat* status) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    error = std::strerror(errno);
    return -1;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    error = std::strerror(errno);
    ::close(fd);
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    error = "not a regular file";
    ::close(fd);
    errno = EINVAL;
    return -1;
  }
  if (status != nullptr) {
    *status = st;
  }
  return fd;
}

std::string readPidCmdline(Platform::DebugHandler& handler, int pid, const std::string& procRoot) {
  std::string path = fmt::format("{}/{}/cmdline", procRoot, pid);
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    fmtrace(handler, 5, "Util", "readPidCmdline", __LINE__, "Util", "cannot open {}", path);
    return "";
  }
  std::string text;
  char buffer[4096];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      break;
    }
    text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  for (char& c : text) {
    if (c == '\0') {
      c = ' ';
    }
  }
  while (!text.empty() && text.back() == ' ') {
    text.pop_back();
  }
  return text;
}

std::string decodeMagic(unsigned long long magic) {
  std::string text(8, '.');
  for (std::size_t i = 0; i < 8; ++i) {
    auto byte = static_cast<unsigned char>((magic >> (8 * i)) & 0xFFU);
    if (byte >= 0x20 && byte < 0x7F) {
      text[i] = static_cast<char>(byte);
    }
  }
  return text;
}

}  // namespace Util
}  // namespace Beacon

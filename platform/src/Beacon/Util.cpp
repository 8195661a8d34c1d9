#include "Beacon/Util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Beacon/Trace.h"
#include "Beacon/UniqueFd.h"

namespace Beacon {

void MemoryResourceException::throwException(const std::string& what) { throw MemoryResourceException(what); }

namespace Util {

int openRegularFile(const std::string& path, std::string& error, struct stat* status) {
  // O_NOFOLLOW: a symbolic link in place of a table file could point at
  // any file or device on the host; it is refused like a FIFO.
  Beacon::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  if (!fd.valid()) {
    error = errno == ELOOP ? "not a regular file" : std::strerror(errno);
    return -1;
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) {
    error = std::strerror(errno);
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    error = "not a regular file";
    fd.reset();  // closed first, so that nothing overwrites the errno set next
    errno = EINVAL;
    return -1;
  }
  if (status != nullptr) {
    *status = st;
  }
  return fd.release();  // the caller owns it
}

bool readWholeFile(const std::string& path, std::string& text, int flags) {
  const Beacon::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | flags));
  if (!fd.valid()) {
    return false;
  }
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      break;
    }
    text.append(buffer, static_cast<std::size_t>(n));
  }
  return true;
}

std::string readPidCmdline(Platform::DebugHandler& handler, int pid, const std::string& procRoot) {
  std::string path = fmt::format("{}/{}/cmdline", procRoot, pid);
  std::string text;
  if (!readWholeFile(path, text)) {
    fmtrace(handler, 5, __FILE__, __func__, __LINE__, "Util", "cannot open {}", path);
    return "";
  }
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

std::string escapeText(const std::string& text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '\\') {
      escaped += "\\\\";
    } else if (byte >= 0x20 && byte < 0x7F) {
      escaped += c;
    } else if (byte == '\n') {
      escaped += "\\n";
    } else if (byte == '\t') {
      escaped += "\\t";
    } else if (byte == '\r') {
      escaped += "\\r";
    } else {
      escaped += "\\x";
      escaped += kHex[byte >> 4];
      escaped += kHex[byte & 0xFU];
    }
  }
  return escaped;
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

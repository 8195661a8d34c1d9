#include "ReportOutput.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace Heron {

namespace {

// The canonical form of `path`, or "" when it cannot be resolved.
std::string canonical(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
}

bool within(const std::string& path, const std::string& dir) {
  if (dir.empty()) {
    return false;
  }
  if (path == dir || dir == "/") {
    return true;
  }
  return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/';
}

void reportWriteError(const std::string& what, int error) {
  std::cerr << "Error writing " << what << ": " << std::strerror(error) << std::endl;
}

}  // namespace

bool DescriptorBuffer::drain() {
  const char* from = pbase();
  const char* end = pptr();
  while (from < end) {
    const ssize_t n = ::write(fd_, from, static_cast<std::size_t>(end - from));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      if (error_ == 0) {
        error_ = n < 0 ? errno : EIO;
      }
      // What could not be written is dropped; the stream goes bad.
      setp(buffer_, buffer_ + sizeof buffer_);
      return false;
    }
    from += n;
  }
  setp(buffer_, buffer_ + sizeof buffer_);
  return true;
}

DescriptorBuffer::int_type DescriptorBuffer::overflow(int_type c) {
  if (!drain()) {
    return traits_type::eof();
  }
  if (!traits_type::eq_int_type(c, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
  }
  return traits_type::not_eof(c);
}

int DescriptorBuffer::sync() { return drain() ? 0 : -1; }

bool isProtectedOutput(const std::string& name, const std::vector<std::string>& protectedDirs) {
  std::string resolved = canonical(name);
  if (resolved.empty()) {
    struct stat link {};
    if (::lstat(name.c_str(), &link) == 0) {
      // Exists but cannot be resolved: a dangling link, or a loop.
      return true;
    }
    const std::size_t slash = name.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : name.substr(0, slash));
    const std::string resolvedDir = canonical(dir);
    if (resolvedDir.empty()) {
      return false;  // the open fails by itself
    }
    resolved = (resolvedDir == "/" ? "" : resolvedDir) + "/" + name.substr(slash == std::string::npos ? 0 : slash + 1);
  }
  for (const std::string& dir : protectedDirs) {
    const std::string resolvedDir = canonical(dir);
    if (within(resolved, resolvedDir.empty() ? dir : resolvedDir)) {
      return true;
    }
  }
  // Any table's file, wherever the root: its directory holds an owner file.
  const std::size_t slash = resolved.rfind('/');
  const std::string parent = slash == 0 ? "/" : resolved.substr(0, slash);
  struct stat owner {};
  return ::lstat((parent + "/owner").c_str(), &owner) == 0;
}

namespace {

// Table directories nest (names are paths) but not deeply; a bound keeps a
// directory loop made with bind mounts from running away.
constexpr int kWalkDepth = 64;

// True when a file under the directory `dirFd`, on the directory's own file
// system, is the file `target`.
bool holdsFile(Beacon::UniqueFd dirFd, const struct stat& target, int depth) {
  DIR* dir = ::fdopendir(dirFd.get());
  if (dir == nullptr) {
    return false;
  }
  dirFd.release();  // the stream owns it now
  bool found = false;
  while (!found) {
    const struct dirent* entry = ::readdir(dir);
    if (entry == nullptr) {
      break;
    }
    const std::string entryName = entry->d_name;
    if (entryName == "." || entryName == "..") {
      continue;
    }
    struct stat st {};
    if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_dev != target.st_dev) {
      continue;
    }
    if (st.st_ino == target.st_ino) {
      found = true;
    } else if (S_ISDIR(st.st_mode) && depth > 0) {
      Beacon::UniqueFd sub(::openat(::dirfd(dir), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      found = sub.valid() && holdsFile(std::move(sub), target, depth - 1);
    }
  }
  ::closedir(dir);
  return found;
}

}  // namespace

bool isFileUnder(const struct stat& st, const std::vector<std::string>& protectedDirs) {
  for (const std::string& name : protectedDirs) {
    Beacon::UniqueFd dir(::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) {
      continue;
    }
    struct stat dirStat {};
    if (::fstat(dir.get(), &dirStat) != 0 || dirStat.st_dev != st.st_dev) {
      continue;  // another file system cannot hold it
    }
    if (holdsFile(std::move(dir), st, kWalkDepth)) {
      return true;
    }
  }
  return false;
}

namespace {

// Opens the report file for writing, or -1. Only a regular file that is no
// table's file is ever opened for writing: a FIFO, a device or a table's file
// by another name is refused before any open, and the file opened must be
// the one checked (a new name is created, never found; an existing one must
// still be the same file). O_NONBLOCK keeps a FIFO swapped in meanwhile from
// blocking the open. The file is truncated only once checked.
int openReportFile(const std::string& name, const std::vector<std::string>& protectedDirs) {
  struct stat before {};
  const bool existed = ::stat(name.c_str(), &before) == 0;
  if (existed && (!S_ISREG(before.st_mode) || isFileUnder(before, protectedDirs))) {
    return -1;
  }
  if (isProtectedOutput(name, protectedDirs)) {
    return -1;
  }
  const int create = existed ? 0 : O_CREAT | O_EXCL;
  Beacon::UniqueFd fd(::open(name.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | create, 0666));
  if (!fd.valid()) {
    return -1;
  }
  struct stat st {};
  const bool same = ::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) &&
                    (!existed || (st.st_dev == before.st_dev && st.st_ino == before.st_ino));
  if (!same || ::ftruncate(fd.get(), 0) != 0) {
    return -1;
  }
  return fd.release();  // the caller owns it
}

}  // namespace

void CheckingBuffer::record() {
  if (error_ == 0) {
    error_ = errno != 0 ? errno : EIO;
  }
}

CheckingBuffer::int_type CheckingBuffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) {
    return traits_type::not_eof(c);
  }
  errno = 0;
  if (target_ == nullptr ||
      traits_type::eq_int_type(target_->sputc(traits_type::to_char_type(c)), traits_type::eof())) {
    record();
    return traits_type::eof();
  }
  return c;
}

std::streamsize CheckingBuffer::xsputn(const char* text, std::streamsize count) {
  errno = 0;
  const std::streamsize written = target_ != nullptr ? target_->sputn(text, count) : 0;
  if (written < count) {
    record();
  }
  return written;
}

int CheckingBuffer::sync() {
  errno = 0;
  if (target_ == nullptr || target_->pubsync() != 0) {
    record();
    return -1;
  }
  return 0;
}

// std::cout's buffer is only looked up, never replaced: the report writes in
// front of it, so order with the warning on std::cout holds.
ReportOutput::ReportOutput()
    : stdoutBuffer_(std::cout.rdbuf()), stream_(&stdout_), coutWasGood_(static_cast<bool>(std::cout)) {}

ReportOutput::~ReportOutput() {
  stdout_.flush();
  file_.flush();
}

bool ReportOutput::open(const std::string& name, const std::vector<std::string>& protectedDirs) {
  if (name.empty()) {
    return true;
  }
  fd_.reset(openReportFile(name, protectedDirs));
  if (!fd_.valid()) {
    std::cerr << "Error opening " << name << std::endl;
    return false;
  }
  fileBuffer_.attach(fd_.get());
  stream_ = &file_;
  fileName_ = name;
  name_ = name;
  return true;
}

int ReportOutput::coutError() {
  errno = 0;
  std::cout.flush();
  if (!coutWasGood_ || std::cout) {
    return 0;
  }
  return errno != 0 ? errno : EIO;
}

bool ReportOutput::finish() {
  stream_->flush();
  int error = isFile() ? fileBuffer_.error() : stdoutBuffer_.error();
  // The warning on standard output counts when the report goes there too.
  const int warning = coutError();
  if (error == 0 && !isFile()) {
    error = warning;
  }
  if (error == 0 && !*stream_) {
    error = EIO;
  }
  if (error != 0) {
    reportWriteError(name_, error);
    return false;
  }
  return true;
}

}  // namespace Heron

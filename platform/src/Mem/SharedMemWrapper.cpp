#include "Mem/SharedMemWrapper.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Beacon/MappingGuard.h"
#include "Beacon/Trace.h"
#include "Beacon/Util.h"

namespace Mem {

SharedMemWrapper::SharedMemWrapper(Beacon::Platform::DebugHandler& handler, std::string path)
    : Beacon::Debuggable(handler), path_(std::move(path)) {}

SharedMemWrapper::~SharedMemWrapper() {
  unmap();
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

std::size_t SharedMemWrapper::memSize() const {
  struct stat st {};
  int rc = fd_ >= 0 ? ::fstat(fd_, &st) : ::stat(path_.c_str(), &st);
  if (rc != 0 || !S_ISREG(st.st_mode)) {
    return 0;
  }
  return static_cast<std::size_t>(st.st_size);
}

bool SharedMemWrapper::open(Mode mode) {
  if (fd_ >= 0) {
    return mode_ == mode || mode == Mode::ReadOnly;
  }
  fd_ = mode == Mode::ReadOnly ? Beacon::Util::openRegularFile(path_, lastError_)
                               : ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
  if (fd_ < 0) {
    if (mode != Mode::ReadOnly) {
      lastError_ = std::strerror(errno);
    }
    return false;
  }
  mode_ = mode;
  return true;
}

void SharedMemWrapper::unmap() {
  if (base_ != nullptr) {
    guard_.reset();
    ::munmap(base_, size_);
    base_ = nullptr;
    size_ = 0;
  }
}

const void* SharedMemWrapper::map(std::size_t size, Mode mode) {
  if (!open(mode)) {
    return nullptr;
  }
  return remap(size);
}

const void* SharedMemWrapper::remap(std::size_t size) {
  if (fd_ < 0) {
    lastError_ = "not open";
    return nullptr;
  }
  std::size_t real = memSize();
  if (size == 0 || size > real) {
    lastError_ = size == 0 ? "empty mapping requested"
                           : "file holds " + std::to_string(real) + " bytes, " + std::to_string(size) + " requested";
    return nullptr;
  }
  int prot = mode_ == Mode::ReadOnly ? PROT_READ : PROT_READ | PROT_WRITE;
  void* base = ::mmap(nullptr, size, prot, MAP_SHARED, fd_, 0);
  if (base == MAP_FAILED) {
    lastError_ = std::strerror(errno);
    return nullptr;
  }
  unmap();
  base_ = base;
  size_ = size;
  if (mode_ == Mode::ReadOnly) {
    guard_ = Beacon::MappingGuard::Range(base_, size_);
  }
  return base_;
}

bool SharedMemWrapper::createFile(const std::string& path, std::size_t size, std::string& error) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  bool ok = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
  if (!ok) {
    error = path + ": " + std::strerror(errno);
  }
  ::close(fd);
  return ok;
}

bool SharedMemWrapper::extend(std::size_t size) {
  if (fd_ < 0 || mode_ != Mode::ReadWrite) {
    lastError_ = "not open for writing";
    return false;
  }
  if (size <= memSize()) {
    return true;
  }
  if (::ftruncate(fd_, static_cast<off_t>(size)) != 0) {
    lastError_ = std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace Mem

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

SharedMemWrapper::~SharedMemWrapper() { unmap(); }

std::size_t SharedMemWrapper::memSize() const {
  struct stat st {};
  // lstat: a symbolic link is not a table file, whatever it points at.
  int rc = fd_.valid() ? ::fstat(fd_.get(), &st) : ::lstat(path_.c_str(), &st);
  if (rc != 0 || !S_ISREG(st.st_mode)) {
    return 0;
  }
  if (fd_.valid()) {
    knownSize_ = static_cast<std::size_t>(st.st_size);
  }
  return static_cast<std::size_t>(st.st_size);
}

bool SharedMemWrapper::open(Mode mode, std::size_t* size) {
  if (fd_.valid()) {
    return mode_ == mode || mode == Mode::ReadOnly;
  }
  struct stat st {};
  fd_.reset(mode == Mode::ReadOnly ? Beacon::Util::openRegularFile(path_, lastError_, &st)
                                   : ::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  if (!fd_.valid()) {
    if (mode != Mode::ReadOnly) {
      lastError_ = std::strerror(errno);
    }
    return false;
  }
  if (mode == Mode::ReadOnly) {
    // The size of the fstat that checked the file type: asking again at
    // once would tell nothing new.
    knownSize_ = static_cast<std::size_t>(st.st_size);
    if (size != nullptr) {
      *size = knownSize_;
    }
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
  constexpr std::size_t kUnknown = ~std::size_t{0};
  std::size_t real = kUnknown;
  if (!open(mode, &real)) {
    return nullptr;
  }
  return mapAt(size, real != kUnknown ? real : memSize());
}

const void* SharedMemWrapper::remap(std::size_t size) {
  if (!fd_.valid()) {
    lastError_ = "not open";
    return nullptr;
  }
  return mapAt(size, memSize());
}

const void* SharedMemWrapper::remap(std::size_t size, std::size_t real) {
  if (!fd_.valid()) {
    lastError_ = "not open";
    return nullptr;
  }
  return mapAt(size, real);
}

const void* SharedMemWrapper::mapAt(std::size_t size, std::size_t real) {
  if (size == 0 || size > real) {
    lastError_ = size == 0 ? "empty mapping requested"
                           : "file holds " + std::to_string(real) + " bytes, " + std::to_string(size) + " requested";
    return nullptr;
  }
  if (base_ != nullptr && size == size_) {
    return base_;  // already mapped at that size, and the file still holds it
  }
  if (base_ != nullptr) {
    // Resized in one call, in place when there is room. It fails, leaving
    // the old mapping as it was, when the range is no longer one mapping
    // (a page patched in after a cut); a fresh mapping is made then. The
    // guard's range follows the mapping.
    guard_.reset();
    void* moved = ::mremap(base_, size_, size, MREMAP_MAYMOVE);
    if (moved != MAP_FAILED) {
      base_ = moved;
      size_ = size;
    }
    if (mode_ == Mode::ReadOnly) {
      guard_ = Beacon::MappingGuard::Range(base_, size_);
    }
    if (moved != MAP_FAILED) {
      return base_;
    }
  }
  const int prot = mode_ == Mode::ReadOnly ? PROT_READ : PROT_READ | PROT_WRITE;
  void* base = ::mmap(nullptr, size, prot, MAP_SHARED, fd_.get(), 0);
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
  const Beacon::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd.valid()) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  const bool ok = ::ftruncate(fd.get(), static_cast<off_t>(size)) == 0;
  if (!ok) {
    error = path + ": " + std::strerror(errno);
  }
  return ok;
}

bool SharedMemWrapper::extend(std::size_t size) {
  if (!fd_.valid() || mode_ != Mode::ReadWrite) {
    lastError_ = "not open for writing";
    return false;
  }
  if (size <= memSize()) {
    return true;
  }
  if (::ftruncate(fd_.get(), static_cast<off_t>(size)) != 0) {
    lastError_ = std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace Mem

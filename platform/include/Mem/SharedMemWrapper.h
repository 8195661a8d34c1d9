// One shared-memory file and its mapping. Owns the descriptor and the
// mapping; both are released by the destructor.
//
// Mode 1 (ReadOnly) opens O_RDONLY and maps PROT_READ: the reader side never
// writes, locks or creates. Mode 0 (ReadWrite) is the writer's. A mapping is
// never made larger than the file is at that moment, so touching mapped
// memory cannot raise SIGBUS unless the file shrinks afterwards (table files
// never shrink); a read-only mapping is registered with Beacon::MappingGuard
// for as long as it lives, so a program that installed the guard reads zeros
// there instead.
#pragma once

#include <cstddef>
#include <string>

#include "Beacon/Debuggable.h"
#include "Beacon/MappingGuard.h"
#include "Beacon/UniqueFd.h"

namespace Mem {

enum class Mode : unsigned { ReadWrite = 0, ReadOnly = 1 };

class SharedMemWrapper : public Beacon::Debuggable {
 public:
  SharedMemWrapper(Beacon::Platform::DebugHandler& handler, std::string path);
  ~SharedMemWrapper() override;
  SharedMemWrapper(const SharedMemWrapper&) = delete;
  SharedMemWrapper& operator=(const SharedMemWrapper&) = delete;

  virtual const std::string& name() const { return path_; }
  // Real size of the file now; 0 when it is absent or unreadable.
  std::size_t memSize() const;
  // The size the last look at the file found (its open or the last
  // memSize()), without asking again; 0 before the file is open.
  std::size_t knownSize() const { return knownSize_; }
  // Maps the file again at `size` bytes; the new base, or nullptr (with
  // lastError set) when the file is shorter or the call fails. The old
  // mapping stays valid on failure; one of that size already is the answer.
  virtual const void* remap(std::size_t size);
  // The same for a file the caller knows to be `real` bytes long (from
  // memSize() or knownSize()), so that the file is not asked again.
  const void* remap(std::size_t size, std::size_t real);
  const std::string& lastError() const { return lastError_; }

  const void* base() const { return base_; }
  void* writableBase() const { return mode_ == Mode::ReadWrite ? base_ : nullptr; }
  std::size_t mappedSize() const { return size_; }
  bool isOpen() const { return fd_.valid(); }

  // Writer side: creates the file (it must not exist) at `size` bytes.
  static bool createFile(const std::string& path, std::size_t size, std::string& error);
  // Writer side: grows the file to `size` bytes (never shrinks it).
  bool extend(std::size_t size);

 protected:
  const void* map(std::size_t size, Mode mode);

 private:
  // Opens the file once; a read-only open also gives the file's size.
  bool open(Mode mode, std::size_t* size = nullptr);
  // Maps `size` bytes of a file now `real` bytes long (a new mapping, or the
  // current one resized).
  const void* mapAt(std::size_t size, std::size_t real);
  void unmap();

  std::string path_;
  Beacon::UniqueFd fd_;
  void* base_ = nullptr;
  std::size_t size_ = 0;
  mutable std::size_t knownSize_ = 0;
  Mode mode_ = Mode::ReadOnly;
  Beacon::MappingGuard::Range guard_;
  std::string lastError_;
};

// Adds attach(): open and map in one call, as the readers use it.
template <typename T>
class Tracked : public T {
 public:
  using T::T;
  // Opens the file in `mode` and maps `size` bytes. Returns the base, or
  // nullptr when the file is missing, shorter than `size`, or cannot be
  // mapped. `address` is a hint only.
  const void* attach(unsigned size, Mode mode, const void* address) {
    (void)address;
    return this->map(size, mode);
  }
};

}  // namespace Mem

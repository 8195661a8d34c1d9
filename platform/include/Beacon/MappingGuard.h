// Read-only file mappings that survive their file being cut.
//
// No size check can close the window between checking a file's size and
// loading from its mapping: a file cut in that window ends the process with
// SIGBUS. The readers therefore register every read-only mapping they make
// (a Range, for as long as the mapping lives) and a SIGBUS handler puts an
// anonymous zero page, read-only, in place of a vanished page inside a
// registered range and lets the load run again. The reader then sees the cut
// by its next size check (fstat) and reports it.
//
// Ownership: the handler belongs to the program, not to the library. The
// runtime never installs it by itself; the executables of this project call
// install() first thing in main. A program that embeds the readers chooses:
//   - it calls install() (once, early, before it starts threads that touch
//     SIGBUS handling): faults inside the readers' ranges are patched, every
//     other SIGBUS goes to the handler the program had when it called
//     install() (a SA_SIGINFO handler gets the original siginfo and
//     context), or takes the default action when there was none;
//   - or it does not: the readers' ranges are still registered, nothing
//     handles them, and a file cut under a reader ends the process with
//     SIGBUS, as any cut mapping would.
// A program that changes SIGBUS's action after install() takes the
// readers' faults over with it. The handler stays installed until exit.
//
// Thread rules: Range objects may be created and destroyed from any thread
// at any time (the table is fixed-size and lock-free); the handler reads it
// with single loads, saves and restores errno, and calls only mmap, raise
// and sigaction. The page size is read once, at install().
#pragma once

#include <cstddef>
#include <cstdint>

namespace Beacon {
namespace MappingGuard {

// Ranges that can be registered at once; a table's reader maps at most one
// file per region (4095) and a handful more.
constexpr std::size_t kMaxRanges = 8192;

// Installs the process's SIGBUS handler, saving the action in place for
// faults outside the registered ranges. Later calls change nothing and
// return the first call's result; false when sigaction failed.
bool install();

// True once install() succeeded.
bool installed();

// One registered read-only range [base, base + size). Move-only; the
// registration ends with the object, which must happen before the range is
// unmapped.
class Range {
 public:
  Range() = default;
  // Registers the range; registered() is false when the table is full (the
  // mapping then has no protection).
  Range(const void* base, std::size_t size);
  ~Range() { reset(); }
  Range(Range&& other) noexcept : slot_(other.slot_) { other.slot_ = kNone; }
  Range& operator=(Range&& other) noexcept;
  Range(const Range&) = delete;
  Range& operator=(const Range&) = delete;

  bool registered() const { return slot_ != kNone; }
  // Ends the registration now.
  void reset();

 private:
  static constexpr std::size_t kNone = ~static_cast<std::size_t>(0);
  std::size_t slot_ = kNone;
};

// Ranges registered now (for tests and diagnostics).
std::size_t registeredRanges();

}  // namespace MappingGuard
}  // namespace Beacon

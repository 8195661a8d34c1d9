#include "Beacon/MappingGuard.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace Beacon {
namespace MappingGuard {

namespace {

using Address = std::uintptr_t;
static_assert(std::atomic<Address>::is_always_lock_free, "the handler reads the table with lock-free loads");
static_assert(std::atomic<std::size_t>::is_always_lock_free, "the handler reads the page size with a lock-free load");

// A slot's begin: 0 free, kClaimed while it is being filled or emptied,
// otherwise the start of a registered range (never 1: a mapping starts on a
// page boundary). end is read only while begin holds an address.
constexpr Address kFree = 0;
constexpr Address kClaimed = 1;

struct Slot {
  std::atomic<Address> begin;
  std::atomic<Address> end;
};

// Static storage: zero (every slot free) before any code runs.
Slot slots[kMaxRanges];
std::atomic<std::size_t> searchFrom{0};
std::atomic<std::size_t> pageSize{0};
// The action in place when install() ran; written before the handler is.
struct sigaction previous {};

bool insideRange(Address address) {
  for (Slot& slot : slots) {
    const Address begin = slot.begin.load(std::memory_order_acquire);
    if (begin <= kClaimed || address < begin) {
      continue;
    }
    const Address end = slot.end.load(std::memory_order_acquire);
    // begin again: a slot emptied and refilled between the two loads is
    // skipped rather than read half old, half new.
    if (address < end && slot.begin.load(std::memory_order_acquire) == begin) {
      return true;
    }
  }
  return false;
}

// Puts a read-only zero page over the page holding `fault`.
bool patch(void* fault) {
  const Address page = pageSize.load(std::memory_order_relaxed);
  if (page == 0) {
    return false;
  }
  // Step back to the page start without an integer-to-pointer cast.
  void* at = static_cast<char*>(fault) - (reinterpret_cast<Address>(fault) & (page - 1));
  return ::mmap(at, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED;
}

// A fault that is not ours: the program's own handler, or the default.
void forward(int signal, siginfo_t* info, void* context) {
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    if (previous.sa_sigaction != nullptr) {
      previous.sa_sigaction(signal, info, context);
      return;
    }
  } else if (previous.sa_handler == SIG_IGN) {
    // A sent SIGBUS is ignored as the program asked; a fault cannot be.
    if (info != nullptr && info->si_code <= 0) {
      return;
    }
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != nullptr) {
    previous.sa_handler(signal);
    return;
  }
  // The default action: restore it and raise the signal again. It stays
  // blocked while this handler runs and arrives as soon as it returns (a
  // fault would also repeat).
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  ::sigemptyset(&fallback.sa_mask);
  ::sigaction(signal, &fallback, nullptr);
  ::raise(signal);
}

void onBusError(int signal, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  if (info != nullptr && info->si_code == BUS_ADRERR && insideRange(reinterpret_cast<Address>(info->si_addr)) &&
      patch(info->si_addr)) {
    errno = savedErrno;
    return;
  }
  forward(signal, info, context);
  errno = savedErrno;
}

bool installOnce() {
  const long page = ::sysconf(_SC_PAGESIZE);
  if (page <= 0) {
    return false;
  }
  pageSize.store(static_cast<std::size_t>(page), std::memory_order_relaxed);
  if (::sigaction(SIGBUS, nullptr, &previous) != 0) {
    return false;
  }
  struct sigaction action {};
  action.sa_sigaction = &onBusError;
  action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  ::sigemptyset(&action.sa_mask);
  return ::sigaction(SIGBUS, &action, nullptr) == 0;
}

std::atomic<bool> installedFlag{false};

}  // namespace

bool install() {
  static const bool ok = installOnce();
  if (ok) {
    installedFlag.store(true, std::memory_order_release);
  }
  return ok;
}

bool installed() { return installedFlag.load(std::memory_order_acquire); }

Range::Range(const void* base, std::size_t size) {
  const auto begin = reinterpret_cast<Address>(base);
  if (begin <= kClaimed || size == 0) {
    return;
  }
  const std::size_t start = searchFrom.fetch_add(1, std::memory_order_relaxed);
  for (std::size_t i = 0; i < kMaxRanges; ++i) {
    const std::size_t index = (start + i) % kMaxRanges;
    Slot& slot = slots[index];
    Address expected = kFree;
    if (slot.begin.compare_exchange_strong(expected, kClaimed, std::memory_order_acquire)) {
      slot.end.store(begin + size, std::memory_order_relaxed);
      slot.begin.store(begin, std::memory_order_release);
      slot_ = index;
      return;
    }
  }
}

Range& Range::operator=(Range&& other) noexcept {
  if (this != &other) {
    reset();
    slot_ = other.slot_;
    other.slot_ = kNone;
  }
  return *this;
}

void Range::reset() {
  if (slot_ == kNone) {
    return;
  }
  Slot& slot = slots[slot_];
  slot.begin.store(kClaimed, std::memory_order_release);
  slot.end.store(0, std::memory_order_release);
  slot.begin.store(kFree, std::memory_order_release);
  slot_ = kNone;
}

std::size_t registeredRanges() {
  std::size_t count = 0;
  for (const Slot& slot : slots) {
    if (slot.begin.load(std::memory_order_acquire) > kClaimed) {
      ++count;
    }
  }
  return count;
}

}  // namespace MappingGuard
}  // namespace Beacon

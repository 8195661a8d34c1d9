// The SIGBUS guard of read-only mappings: what it patches, what it hands on.
// Every case runs in a child process: SIGBUS's action is process-wide.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "Beacon/MappingGuard.h"
#include "Beacon/Platform.h"
#include "HeronScanner.h"
#include "Mem/RootPath.h"
#include "Quarry/QuarryWriter.h"
#include "Quarry/Region.h"
#include "support/Child.h"
#include "support/Ended.h"
#include "support/Handler.h"
#include "support/TempDir.h"

namespace {

using Beacon::MappingGuard::Range;

using HeronTest::quietHandler;

std::size_t pageSize() { return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)); }

// Runs `body` in a child; its return value is the child's exit status.
HeronTest::RunResult inChild(const std::function<int()>& body) { return HeronTest::Child(body).wait(); }

// Two pages of 'x', mapped read-only; the file is cut by cut().
class CutFile {
 public:
  explicit CutFile(const std::string& path) : path_(path), size_(2 * pageSize()) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const std::string bytes(size_, 'x');
    if (fd >= 0 && ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size())) {
      void* base = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd, 0);
      base_ = base == MAP_FAILED ? nullptr : static_cast<const unsigned char*>(base);
    }
    if (fd >= 0) {
      ::close(fd);
    }
  }
  ~CutFile() {
    if (base_ != nullptr) {
      ::munmap(const_cast<unsigned char*>(base_), size_);
    }
  }
  CutFile(const CutFile&) = delete;
  CutFile& operator=(const CutFile&) = delete;

  const unsigned char* base() const { return base_; }
  std::size_t size() const { return size_; }
  bool cut() const { return ::truncate(path_.c_str(), 0) == 0; }
  // The byte at `at`, one load.
  unsigned char load(std::size_t at) const { return __atomic_load_n(&base_[at], __ATOMIC_RELAXED); }

 private:
  std::string path_;
  std::size_t size_;
  const unsigned char* base_ = nullptr;
};

// The program's own SIGBUS handler: records the address and jumps back.
sigjmp_buf programJump;
void* volatile programFault = nullptr;
volatile int programCalls = 0;

void programHandler(int, siginfo_t* info, void*) {
  programFault = info->si_addr;
  programCalls = programCalls + 1;
  siglongjmp(programJump, 1);
}

void installProgramHandler() {
  struct sigaction action {};
  action.sa_sigaction = &programHandler;
  action.sa_flags = SA_SIGINFO;
  ::sigemptyset(&action.sa_mask);
  ::sigaction(SIGBUS, &action, nullptr);
}

bool programHandlerInPlace() {
  struct sigaction current {};
  return ::sigaction(SIGBUS, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) != 0 &&
         current.sa_sigaction == &programHandler;
}

// Loads from the program's own cut file; true when the program's handler got
// the fault at that address.
bool ownFaultReachesProgram(const CutFile& own) {
  const int callsBefore = programCalls;
  if (sigsetjmp(programJump, 1) == 0) {
    (void)own.load(pageSize() + 3);
    return false;  // the load did not fault: patched by someone else
  }
  return programCalls == callsBefore + 1 && programFault == own.base() + pageSize() + 3;
}

// A region of 64 units of 256 bytes (over 4 pages), attached by a reader.
// (A region rather than a queue: other tests' `heron -A` runs read the
// queue headers of every process, and this one cuts its file.)
struct EmbeddedReader {
  explicit EmbeddedReader(const std::string& dir) : root(dir), writer(quietHandler(), root) {
    std::string error;
    const std::uint32_t id = writer.create(error) ? writer.createRegion(256, 64, error) : 0;
    path = root.fullPath("region." + std::to_string(id));
    ok = id != 0 && reader.attach(path, id, error);
  }
  Mem::RootPath root;
  Quarry::QuarryWriter writer;
  Quarry::RegionScanner reader;
  std::string path;
  bool ok = false;
};

TEST(MappingGuard, CutFileInsideARegisteredRangeReadsZeros) {
  HeronTest::TempDir dir;
  const HeronTest::RunResult status = inChild([&] {
    if (!Beacon::MappingGuard::install()) {
      return 10;
    }
    CutFile file(dir.path() + "/shrinks");
    if (file.base() == nullptr) {
      return 11;
    }
    Range range(file.base(), file.size());
    if (!range.registered() || file.load(pageSize()) != 'x' || !file.cut()) {
      return 12;
    }
    return file.load(0) == 0 && file.load(pageSize() + 7) == 0 ? 0 : 13;
  });
  EXPECT_TRUE(HeronTest::endedWell(status));
}

// Without install(), a program that embeds a reader keeps its own handler:
// mapping a table file changes nothing about SIGBUS.
TEST(MappingGuard, ReadersLeaveTheProgramsHandlerInPlace) {
  HeronTest::TempDir dir;
  const HeronTest::RunResult status = inChild([&] {
    installProgramHandler();
    EmbeddedReader embedded(dir.path());
    if (!embedded.ok) {
      return 10;
    }
    if (!programHandlerInPlace()) {
      return 11;
    }
    CutFile own(dir.path() + "/own");
    if (own.base() == nullptr || !own.cut()) {
      return 12;
    }
    return ownFaultReachesProgram(own) ? 0 : 13;
  });
  EXPECT_TRUE(HeronTest::endedWell(status));
}

// A program that installs the guard over its own handler: the reader's cut
// file reads zeros, the program's own cut file still reaches its handler.
TEST(MappingGuard, ProgramsOwnFaultsStillReachItsHandler) {
  HeronTest::TempDir dir;
  const HeronTest::RunResult status = inChild([&] {
    installProgramHandler();
    if (!Beacon::MappingGuard::install()) {
      return 10;
    }
    EmbeddedReader embedded(dir.path());
    CutFile own(dir.path() + "/own");
    if (!embedded.ok || own.base() == nullptr) {
      return 11;
    }
    if (::truncate(embedded.path.c_str(), 0) != 0 || !own.cut()) {
      return 12;
    }
    // The reader's mapping: patched, no call to the program's handler.
    if (embedded.reader.usedUnits() != 0 || embedded.reader.numFreePages() == 0 || programCalls != 0) {
      return 13;
    }
    return ownFaultReachesProgram(own) ? 0 : 14;
  });
  EXPECT_TRUE(HeronTest::endedWell(status));
}

// No handler before install(): a fault outside every range ends the process
// with SIGBUS, as it would without the guard.
TEST(MappingGuard, FaultOutsideTheRangesTakesTheDefaultAction) {
  HeronTest::TempDir dir;
  const HeronTest::RunResult status = inChild([&] {
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    ::sigemptyset(&fallback.sa_mask);
    ::sigaction(SIGBUS, &fallback, nullptr);
    if (!Beacon::MappingGuard::install()) {
      return 10;
    }
    CutFile own(dir.path() + "/own");
    if (own.base() == nullptr || !own.cut()) {
      return 11;
    }
    (void)own.load(5);
    return 12;
  });
  EXPECT_EQ(status.signal, SIGBUS) << status.describe();
}

// A sent SIGBUS, nobody's fault, also goes to the program's handler.
TEST(MappingGuard, SentSignalReachesTheProgramsHandler) {
  const HeronTest::RunResult status = inChild([] {
    installProgramHandler();
    if (!Beacon::MappingGuard::install()) {
      return 10;
    }
    if (sigsetjmp(programJump, 1) == 0) {
      ::raise(SIGBUS);
      return 11;
    }
    return programCalls == 1 ? 0 : 12;
  });
  EXPECT_TRUE(HeronTest::endedWell(status));
}

// errno of the interrupted code survives the handler, whatever the handler
// it hands the fault to does with it.
int errnoClobber = 0;
void patchingProgramHandler(int, siginfo_t* info, void*) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  auto* fault = static_cast<char*>(info->si_addr);
  ::mmap(fault - (reinterpret_cast<std::uintptr_t>(fault) & (page - 1)), page, PROT_READ,
         MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  errno = errnoClobber;
}

TEST(MappingGuard, ErrnoIsKept) {
  HeronTest::TempDir dir;
  const HeronTest::RunResult status = inChild([&] {
    struct sigaction action {};
    action.sa_sigaction = &patchingProgramHandler;
    action.sa_flags = SA_SIGINFO;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGBUS, &action, nullptr);
    errnoClobber = EIO;
    if (!Beacon::MappingGuard::install()) {
      return 10;
    }
    CutFile own(dir.path() + "/own");
    if (own.base() == nullptr || !own.cut()) {
      return 11;
    }
    errno = EDOM;
    const unsigned char byte = own.load(9);
    return byte == 0 && errno == EDOM ? 0 : 12;
  });
  EXPECT_TRUE(HeronTest::endedWell(status));
}

// The utility's entry installs the guard for its process.
TEST(MappingGuard, HeronMainInstallsIt) {
  const HeronTest::RunResult status = inChild([] {
    if (Beacon::MappingGuard::installed()) {
      return 10;
    }
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
      return 11;
    }
    char program[] = "heron";
    char help[] = "--help";
    char* argv[] = {program, help, nullptr};
    (void)Heron::main(2, argv);
    return Beacon::MappingGuard::installed() ? 0 : 12;
  });
  EXPECT_TRUE(HeronTest::endedWell(status));
}

TEST(MappingGuard, TableIsBoundedAndSlotsAreReused) {
  const std::size_t before = Beacon::MappingGuard::registeredRanges();
  static const unsigned char area[64] = {};
  std::vector<Range> ranges;
  for (std::size_t i = before; i < Beacon::MappingGuard::kMaxRanges; ++i) {
    ranges.emplace_back(area, sizeof area);
    ASSERT_TRUE(ranges.back().registered()) << i;
  }
  Range overflow(area, sizeof area);
  EXPECT_FALSE(overflow.registered());
  ranges.pop_back();
  Range reused(area, sizeof area);
  EXPECT_TRUE(reused.registered());
  ranges.clear();
  reused.reset();
  EXPECT_EQ(Beacon::MappingGuard::registeredRanges(), before);
}

TEST(MappingGuard, MovedRangeKeepsOneRegistration) {
  static const unsigned char area[64] = {};
  const std::size_t before = Beacon::MappingGuard::registeredRanges();
  Range first(area, sizeof area);
  Range second(std::move(first));
  EXPECT_FALSE(first.registered());  // NOLINT(bugprone-use-after-move): the moved-from state is the point
  EXPECT_TRUE(second.registered());
  EXPECT_EQ(Beacon::MappingGuard::registeredRanges(), before + 1);
  second = Range();
  EXPECT_EQ(Beacon::MappingGuard::registeredRanges(), before);
}

}  // namespace

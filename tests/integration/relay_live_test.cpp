// A writer process appends, tombstones, switches tables and grows the queue
// at full speed with short pauses, while the queue is dumped again and
// again, by the reader class and by `heron -q` / `heron -q -e` when the
// table can be dumped end to end. Every printed slot must be one the writer
// really wrote: its three words check each other (offset and size are
// functions of the sequence; a released slot keeps its size), and the
// published slots of a table hold consecutive sequences.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "Quarry/Offset.h"
#include "Relay/RelayReaderGeneric.h"
#include "Relay/RelayWriter.h"
#include "support/Child.h"
#include "support/Run.h"
#include "unit/relay/RelayTestFiles.h"

namespace {

using Reader = Relay::RelayReaderGeneric<Relay::RelaySlot>;

// The words a slot of sequence `sequence` gets.
std::uint32_t offsetOf(std::uint32_t sequence) {
  return Quarry::Offset::encode(1 + sequence % 4000, (sequence * 7U) & Quarry::Offset::kMaxUnitIndex);
}
std::uint32_t sizeOf(std::uint32_t sequence) { return (sequence * 2654435761U) >> 16; }

bool writtenByTheWriter(std::uint32_t sequence, std::uint32_t offset, std::uint32_t size) {
  if (sequence == 0) {
    return offset == 0 && size == 0;  // never written
  }
  return size == sizeOf(sequence) && (offset == offsetOf(sequence) || offset == Quarry::Offset::TOMBSTONED);
}

// The writer: bursts of appends with releases, a pause after each burst,
// now and then a grow. Runs until killed (or 60 s at most).
[[noreturn]] void runWriter(const Mem::RootPath& root) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Relay::RelayWriter writer(RelayTest::handler(), root);
  std::string error;
  if (!writer.open(error)) {
    std::fprintf(stderr, "writer: %s\n", error.c_str());
    std::_Exit(2);
  }
  std::mt19937 rng(99);
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  unsigned bursts = 0;
  while (std::chrono::steady_clock::now() < end) {
    unsigned count = 50 + rng() % 3000;
    for (unsigned i = 0; i < count; ++i) {
      std::uint64_t sequence = writer.latestSequence() + 1;
      auto low = static_cast<std::uint32_t>(sequence);
      writer.append(offsetOf(low), sizeOf(low));
      if (rng() % 4 == 0 && sequence > 10) {
        writer.tombstone(sequence - rng() % 10);
      }
    }
    if (++bursts % 40 == 0 && writer.capacity() < 6000) {
      writer.grow(writer.capacity() + 500, error);
    }
    // The pause between bursts is part of the load, not a wait: readers
    // catch the queue both mid-burst and at rest.
    ::usleep(200 + rng() % 800);
  }
  std::_Exit(0);
}

struct Checked {
  unsigned slots = 0;
  unsigned torn = 0;  // in the full view, where the rule allows it
  unsigned restarts = 0;
  std::string failure;
};

// Checks one report. In the active-only view every slot is published and
// must be whole. In the full view the slot at the active table's currentPos
// (being written) and the last slot of a table (copied after the last
// check) may be caught half-written; every other must be whole.
void checkReport(const std::string& report, bool activeOnly, Checked& checked) {
  std::istringstream lines(report);
  std::string line;
  bool active = false;
  unsigned currentPos = 0;
  unsigned capacity = 0;
  bool sawTiming = false;
  // The first published slot printed in the current table block.
  bool haveFirst = false;
  unsigned firstPosition = 0;
  std::uint32_t firstSequence = 0;
  while (std::getline(lines, line)) {
    unsigned position = 0;
    unsigned sequence = 0;
    unsigned offset = 0;
    unsigned size = 0;
    unsigned version = 0;
    if (line.rfind("Primary relay queue ", 0) == 0 || line.rfind("Secondary relay queue ", 0) == 0) {
      active = line.find("(active)") != std::string::npos;
      haveFirst = false;
    } else if (std::sscanf(line.c_str(), "\tnotifications:%u (v%u)", &capacity, &version) == 2) {
    } else if (std::sscanf(line.c_str(), "\tcurrentPos:%u", &currentPos) == 1) {
    } else if (std::sscanf(line.c_str(), "pos: %u | seq: %u offset: 0x%x %*s size: %u", &position, &sequence, &offset,
                           &size) == 4) {
      ++checked.slots;
      if (activeOnly && (position >= currentPos || offset == Quarry::Offset::TOMBSTONED)) {
        checked.failure = "active-only view printed " + line;
        return;
      }
      if (!writtenByTheWriter(sequence, offset, size)) {
        bool allowed = !activeOnly && ((active && position == currentPos) || position + 1 == capacity);
        if (!allowed) {
          checked.failure = "never written: " + line + " (currentPos " + std::to_string(currentPos) + ")";
          return;
        }
        ++checked.torn;
        continue;
      }
      // Published slots hold consecutive sequences from the table's reset:
      // one copied from another epoch or out of order breaks the rule.
      if (position < currentPos && position + 1 != capacity) {
        if (!haveFirst) {
          haveFirst = true;
          firstPosition = position;
          firstSequence = sequence;
        } else if (sequence - firstSequence != position - firstPosition) {
          checked.failure = "not consecutive: " + line + " after sequence " + std::to_string(firstSequence) +
                            " at position " + std::to_string(firstPosition);
          return;
        }
      }
    } else if (line.rfind("Restarted ", 0) == 0) {
      unsigned restarts = 0;
      if (std::sscanf(line.c_str(), "Restarted %u times", &restarts) != 1) {
        checked.failure = "bad restart line: " + line;
        return;
      }
      checked.restarts += restarts;
      sawTiming = true;
    }
  }
  if (!sawTiming) {
    checked.failure = "no timing line in: " + report.substr(0, 200);
  }
}

class RelayLive : public ::testing::Test {
 protected:
  void SetUp() override {
    HeronTest::RunResult created =
        HeronTest::run({HeronTest::simBin(), "create", "live", "--capacity", "1000"}, {"HERON_ROOT=" + temp.path()});
    ASSERT_EQ(created.status, 0) << created.describe() << ": " << created.err;
    struct stat st {};
    ASSERT_EQ(::stat((temp.path() + "/live/relay.1").c_str(), &st), 0);
    cliWorks = ::stat((temp.path() + "/live/quarry").c_str(), &st) == 0;
    writer = std::make_unique<HeronTest::Child>([this] {
      runWriter(root);
      return 0;
    });
    ASSERT_TRUE(writer->started()) << writer->error();
  }
  // Killed and reaped.
  void TearDown() override { writer.reset(); }

  RelayTest::TempDir temp;
  Mem::RootPath root{temp.path() + "/live"};
  std::unique_ptr<HeronTest::Child> writer;
  bool cliWorks = false;
};

}  // namespace

TEST_F(RelayLive, ReaderClassPrintsOnlyWrittenSlotsAndRestarts) {
  Checked checked;
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  unsigned runs = 0;
  while (std::chrono::steady_clock::now() < end || checked.restarts == 0) {
    Reader reader(RelayTest::handler(), root, false);
    ASSERT_TRUE(reader.initialize());
    std::ostringstream out;
    bool activeOnly = (runs % 2) == 0;
    reader.scan(out, activeOnly);
    checkReport(out.str(), activeOnly, checked);
    ASSERT_EQ(checked.failure, "") << "run " << runs;
    ++runs;
    ASSERT_LT(runs, 100000U) << "no restart seen";
  }
  EXPECT_GT(checked.slots, 1000U);
  EXPECT_GT(checked.restarts, 0U);
  std::printf("reader class: %u runs, %u slots, %u restarts, %u half-written slots where allowed\n", runs,
              checked.slots, checked.restarts, checked.torn);
}

TEST_F(RelayLive, HeronQueueDumpPrintsOnlyWrittenSlotsAndRestarts) {
  ASSERT_TRUE(cliWorks) << "heron-sim create made no quarry file";
  Checked checked;
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
  unsigned runs = 0;
  while (std::chrono::steady_clock::now() < end || checked.restarts == 0) {
    bool activeOnly = (runs % 2) == 0;
    const std::vector<std::string> argv = activeOnly
                                              ? std::vector<std::string>{HeronTest::heronBin(), "-q", "live"}
                                              : std::vector<std::string>{HeronTest::heronBin(), "-q", "-e", "live"};
    HeronTest::RunResult report = HeronTest::run(argv, {"HERON_ROOT=" + temp.path()});
    ASSERT_EQ(report.status, 0) << "run " << runs << ": " << report.describe();
    checkReport(report.out, activeOnly, checked);
    ASSERT_EQ(checked.failure, "") << "run " << runs;
    ++runs;
    ASSERT_LT(runs, 5000U) << "no restart seen";
  }
  EXPECT_GT(checked.slots, 1000U);
  EXPECT_GT(checked.restarts, 0U);
  std::printf("heron -q: %u runs, %u slots, %u restarts, %u half-written slots where allowed\n", runs, checked.slots,
              checked.restarts, checked.torn);
}

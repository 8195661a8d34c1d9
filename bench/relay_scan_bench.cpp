// The snapshot copy inside the queue scan against a plain memcpy of the same
// bytes: two tables of 1,000,000 slots each (24,000,000 bytes of slots),
// both full, on tmpfs.
//
//   relay_scan_bench                    run the benchmarks
//   relay_scan_bench --fill DIR [N]     fill the queue files of table
//                                       directory DIR (made by heron-sim
//                                       create) until both tables are full
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "Quarry/Offset.h"
#include "Relay/RelayReaderGeneric.h"
#include "Relay/RelayWriter.h"

namespace {

using Reader = Relay::RelayReaderGeneric<Relay::RelaySlot>;
using Notification = Reader::Notification;
constexpr unsigned kCapacity = 1000000;

Beacon::Platform::DebugHandler& handler() {
  static std::shared_ptr<Beacon::Platform::DebugHandler> shared = Beacon::Platform::getDebugHandler("Bench", false);
  return *shared;
}

// Appends until both tables are full: the primary holds the older half.
bool fill(Relay::RelayWriter& writer) {
  const unsigned capacity = writer.capacity();
  for (unsigned long long i = 1; i <= 2ULL * capacity; ++i) {
    auto sequence = static_cast<std::uint32_t>(i);
    if (writer.append(Quarry::Offset::encode(1 + sequence % 4000, sequence & 0xFFFFFU), sequence % 5000) == 0) {
      return false;
    }
    if (i % 7 == 0) {
      writer.tombstone(std::uint64_t{i});
    }
  }
  return true;
}

// A table of two full 1,000,000-slot files under /dev/shm, removed at exit.
class Table {
 public:
  Table() {
    char pattern[] = "/dev/shm/heron-relay-bench.XXXXXX";
    const char* made = ::mkdtemp(pattern);
    dir_ = made != nullptr ? made : "";
    Relay::RelayWriter writer(handler(), Mem::RootPath(dir_));
    std::string error;
    if (dir_.empty() || !writer.create(kCapacity, SharedMem::EmberId{1, 0}, error) || !fill(writer)) {
      std::fprintf(stderr, "cannot build the table: %s\n", error.c_str());
      std::exit(1);
    }
  }
  ~Table() {
    ::unlink((dir_ + "/relay.1").c_str());
    ::unlink((dir_ + "/relay.2").c_str());
    ::rmdir(dir_.c_str());
  }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  Mem::RootPath root() const { return Mem::RootPath(dir_); }

 private:
  std::string dir_;
};

Table& table() {
  static Table shared;
  return shared;
}

Reader& reader() {
  static Reader* shared = [] {
    auto* made = new Reader(handler(), table().root(), false);
    if (!made->initialize()) {
      std::fprintf(stderr, "cannot attach the table\n");
      std::exit(1);
    }
    return made;
  }();
  return *shared;
}

constexpr std::size_t kBytes = 2ULL * kCapacity * 12;

// The snapshot of scan: into vectors reused from the previous iteration, as
// between attempts, or fresh ones, reserved and filled once, as one scan call
// does.
void Snapshot(benchmark::State& state, bool fresh) {
  Reader& r = reader();
  std::vector<Notification> reused[2];
  for (auto _ : state) {
    std::vector<Notification> made[2];
    std::vector<Notification>(&snapshot)[2] = fresh ? made : reused;
    unsigned restarts = r.takeSnapshot(snapshot, false);
    benchmark::DoNotOptimize(snapshot[1].data());
    benchmark::DoNotOptimize(restarts);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBytes));
}

// The same bytes with memcpy from the same mappings, into a reused buffer or
// into one allocated each time.
void Memcpy(benchmark::State& state, bool fresh) {
  Reader& r = reader();
  std::vector<char> reused(fresh ? 0 : kBytes);
  for (auto _ : state) {
    std::unique_ptr<char[]> made(fresh ? new char[kBytes] : nullptr);
    char* buffer = fresh ? made.get() : reused.data();
    for (unsigned id = 0; id < 2; ++id) {
      std::memcpy(buffer + id * kBytes / 2, r.slots(static_cast<Reader::RelayTableId>(id)), kBytes / 2);
    }
    benchmark::DoNotOptimize(buffer);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBytes));
}

BENCHMARK_CAPTURE(Snapshot, Reused, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Memcpy, Reused, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Snapshot, Fresh, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Memcpy, Fresh, true)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--fill") == 0) {
    Relay::RelayWriter writer(handler(), Mem::RootPath(argv[2]));
    std::string error;
    if (!writer.open(error)) {
      std::fprintf(stderr, "relay_scan_bench --fill: %s\n", error.c_str());
      return 1;
    }
    return fill(writer) ? 0 : 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

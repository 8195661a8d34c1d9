// fillHeader over many regions against the floor: opening, fstat-ing and
// mapping the header of every region file, then unmapping and closing it.
//
//   build/bin/quarry_bench --benchmark_filter='Floor|FillHeader'
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"
#include "Quarry/QuarryFormat.h"
#include "Quarry/QuarryWriter.h"
#include "model/Model.h"
#include "readers/QuarryHelperScanner.h"

namespace {

Beacon::Platform::DebugHandler& handler() {
  static Beacon::Platform::DebugHandler instance("QuarryBench", 0);
  return instance;
}

// One table of `count` regions (64-byte units, 64 per region, a quarter
// used), built once per size, on tmpfs when there is one.
class BenchTable {
 public:
  explicit BenchTable(int count) {
    struct stat st {};
    std::string base = ::stat("/dev/shm", &st) == 0 ? "/dev/shm" : "/tmp";
    std::string pattern = base + "/quarry-bench-XXXXXX";
    dir_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
    Quarry::QuarryWriter writer(handler(), Mem::RootPath(dir_));
    std::string error;
    if (!writer.create(error)) {
      std::abort();
    }
    for (int i = 0; i < count; ++i) {
      const std::uint32_t id = writer.createRegion(64, 64, error);
      if (id == 0) {
        std::abort();
      }
      for (int unit = 0; unit < 16; ++unit) {
        writer.allocate(id);
      }
    }
  }
  ~BenchTable() {
    std::string command = "rm -rf '" + dir_ + "'";
    if (std::system(command.c_str()) != 0) {
      std::abort();
    }
  }
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

BenchTable& table(int count) {
  static std::map<int, std::unique_ptr<BenchTable>> tables;
  auto& slot = tables[count];
  if (!slot) {
    slot = std::make_unique<BenchTable>(count);
  }
  return *slot;
}

void BM_Floor(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  const std::string dir = table(count).dir();
  std::uint64_t sum = 0;
  for (auto _ : state) {
    for (int id = 1; id <= count; ++id) {
      const std::string path = dir + "/region." + std::to_string(id);
      int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      struct stat st {};
      ::fstat(fd, &st);
      void* base = ::mmap(nullptr, sizeof(Quarry::RegionHeader), PROT_READ, MAP_SHARED, fd, 0);
      const auto* header = static_cast<const Quarry::RegionHeader*>(base);
      sum += header->unitCount + header->usedUnits + header->unitSize;
      ::munmap(base, sizeof(Quarry::RegionHeader));
      ::close(fd);
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * count);
}

// What the client report does per table: build, initialise, fillHeader.
void BM_FillHeader(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  const Mem::RootPath root(table(count).dir());
  for (auto _ : state) {
    Heron::QuarryHelperScanner scanner(handler(), root, "");
    if (!scanner.initialize()) {
      state.SkipWithError("initialize failed");
      break;
    }
    Heron::Model::HeaderInfo info;
    scanner.fillHeader(info);
    if (info.numRegions != static_cast<std::uint64_t>(count)) {
      state.SkipWithError("wrong region count");
      break;
    }
    benchmark::DoNotOptimize(info);
  }
  state.SetItemsProcessed(state.iterations() * count);
}

// The scanner's fixed cost alone: construct, initialise (map quarry, start
// the directory watch), destroy.
void BM_ScannerLifecycle(benchmark::State& state) {
  const Mem::RootPath root(table(100).dir());
  for (auto _ : state) {
    Heron::QuarryHelperScanner scanner(handler(), root, "");
    benchmark::DoNotOptimize(scanner.initialize());
  }
}

}  // namespace

BENCHMARK(BM_Floor)->Arg(100)->Arg(500)->Arg(1000)->Arg(2000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FillHeader)->Arg(100)->Arg(500)->Arg(1000)->Arg(2000)->Arg(4000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScannerLifecycle)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();

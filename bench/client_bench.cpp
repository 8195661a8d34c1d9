// Micro-benchmarks of the maps-line hot path: getToken and the extraction of
// one process's maps file (a realistic 72-line file in a fake /proc).
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "HeronClientScanner.h"

namespace {

const std::string kLine =
    "7f3a1c2e4000-7f3a1c2e8000 r--s 00000000 fd:01 1234567                    /dev/shm/heron/md/eu/quotes/relay.1";
const std::string kLibraryLine =
    "7f3a1c000000-7f3a1c022000 r-xp 00028000 fd:01 2345678                    /usr/lib/x86_64-linux-gnu/libc.so.6";
const std::string kAnonymousLine = "7f3a1c2e4000-7f3a1c2e8000 rw-p 00000000 00:00 0";

Beacon::Platform::DebugHandler& handler() {
  static std::shared_ptr<Beacon::Platform::DebugHandler> shared =
      Beacon::Platform::getDebugHandler("HeronScanner", false);
  return *shared;
}

struct Fixture {
  Fixture() : root(handler(), "/dev/shm/heron/md/eu/quotes", false) {}
  std::ostringstream out;
  Mem::OrbRootPath root;
};

// getToken's token `index` of `line`, split at blanks.
void BM_GetToken(benchmark::State& state, const std::string& line, unsigned index) {
  Fixture fixture;
  Heron::HeronClientScanner scanner(&fixture.out, fixture.root, "");
  for (auto _ : state) {
    benchmark::DoNotOptimize(scanner.getToken(line, index, " "));
  }
}
BENCHMARK_CAPTURE(BM_GetToken, Pathname, kLine, 6);
BENCHMARK_CAPTURE(BM_GetToken, Permissions, kLine, 2);
BENCHMARK_CAPTURE(BM_GetToken, Anonymous, kAnonymousLine, 6);
BENCHMARK_CAPTURE(BM_GetToken, LongLine, kLibraryLine.substr(0, 74) + std::string(1000, 'x'), 6);

// A fake /proc with one process whose maps file has 72 lines: libraries,
// anonymous regions and the two files of one table.
class FakeProcess {
 public:
  FakeProcess() {
    char pattern[] = "/tmp/heron-client-bench-XXXXXX";
    dir_ = ::mkdtemp(pattern);
    std::string process = dir_ + "/4711";
    ::mkdir(process.c_str(), 0755);
    std::ofstream maps(process + "/maps");
    for (int i = 0; i < 70; ++i) {
      maps << (i % 3 == 0 ? kAnonymousLine : kLibraryLine) << '\n';
    }
    maps << kLine << '\n';
    maps << "7f3a1c2e9000-7f3a1c2ea000 r--s 00000000 fd:01 1234568                    "
            "/dev/shm/heron/md/eu/quotes/ember\n";
    maps.close();
    int ignored = ::symlink("/usr/bin/quotes-view", (process + "/exe").c_str());
    (void)ignored;
  }
  ~FakeProcess() {
    std::string command = "rm -rf '" + dir_ + "'";
    int ignored = std::system(command.c_str());
    (void)ignored;
  }
  const std::string& root() const { return dir_; }
  std::string maps() const { return dir_ + "/4711/maps"; }

 private:
  std::string dir_;
};

// `extract` over the fake process's maps file (72 lines) every iteration.
template <typename Extract>
void extractOneProcess(benchmark::State& state, Extract extract) {
  FakeProcess process;
  Fixture fixture;
  const Heron::HeronClientScanner scanner(&fixture.out, fixture.root, "", process.root());
  const std::string maps = process.maps();
  for (auto _ : state) {
    extract(scanner, maps);
  }
  state.counters["lines/s"] =
      benchmark::Counter(72.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_ExtractMmapInfoOneProcess(benchmark::State& state) {
  std::vector<Heron::MmapInfo> records;
  extractOneProcess(state, [&records](const Heron::HeronClientScanner& scanner, const std::string& maps) {
    records.clear();
    scanner.extractMmapInfo(maps, records);
    benchmark::DoNotOptimize(records.data());
  });
}
BENCHMARK(BM_ExtractMmapInfoOneProcess);

void BM_ExtractMmapInfoByTableOneProcess(benchmark::State& state) {
  extractOneProcess(state, [](const Heron::HeronClientScanner& scanner, const std::string& maps) {
    Heron::HeronClientScanner::TableToInfoMap tables;
    scanner.extractMmapInfoByTable(maps, tables);
    benchmark::DoNotOptimize(tables.size());
  });
}
BENCHMARK(BM_ExtractMmapInfoByTableOneProcess);

// The same with per-line traces enabled into a closed stderr would measure
// the trace sink, not the scanner; the level-9 mask only matters for the
// fast path, so this variant tokenizes every line as the traced path does.
void BM_ExtractMmapInfoByTableTokenizeEveryLine(benchmark::State& state) {
  FakeProcess process;
  Fixture fixture;
  Heron::HeronClientScanner scanner(&fixture.out, fixture.root, "", process.root());
  std::ifstream file(process.maps());
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  for (auto _ : state) {
    std::size_t found = 0;
    for (const std::string& line : lines) {
      std::string region = scanner.getToken(line, 6, " ");
      found += region.size();
    }
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(BM_ExtractMmapInfoByTableTokenizeEveryLine);

}  // namespace

BENCHMARK_MAIN();

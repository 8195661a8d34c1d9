// Finding one moment in a full recording: `heron-stat --from DIR --at TIME`
// over a recorder directory at its default budget (64 MiB), written by the
// recorder itself from synthetic samples of 100 tables, one a second.
//
//   record_bench                  run the benchmarks (recording in a temporary directory,
//                                 or in $HERON_RECORDING when set: one made by --make)
//   record_bench --make DIR       only write the recording into DIR (made if missing),
//                                 for timing the command line on it
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Recorder.h"
#include "Render.h"
#include "unit/stat/SampleFixture.h"
#include "unit/stat/TempDir.h"

namespace {

constexpr double kFirstSecond = 1700000000;

std::uint64_t recordedBytes(const std::string& dir) {
  std::uint64_t bytes = 0;
  for (const Stat::RecordFile& file : Stat::recordFiles(dir)) {
    bytes += file.bytes;
  }
  return bytes;
}

// Samples one second apart until the budget is nearly full; the counters
// move from sample to sample as a busy collection's do. The time of the
// last sample.
double makeRecording(const std::string& dir, std::string& error) {
  Stat::Recorder recorder(dir, Stat::kDefaultRecordBytes);
  if (!recorder.open(error)) {
    return -1;
  }
  Stat::Sample sample;
  for (int i = 0; i < 100; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "bench/t%03d", i);
    sample.tables.push_back(StatTest::healthyTable(name));
  }
  double time = kFirstSecond;
  for (std::uint64_t n = 0; recordedBytes(dir) < Stat::kDefaultRecordBytes - (256 << 10); ++n, time += 1) {
    sample.timeSeconds = time;
    for (std::size_t t = 0; t < sample.tables.size(); ++t) {
      Stat::Table& table = sample.tables[t];
      table.queues.sequence += 997 * (t % 10 == 0);
      table.queues.ratePerSecond = 997.0 * (t % 10 == 0);
      table.writer.heartbeatAgeSeconds = 0.001 * static_cast<double>((n * 7 + t) % 1000);
      table.allocator.allocations += t % 10 == 0 ? 500 : 0;
    }
    if (!recorder.append(Stat::renderJson(sample), time, error)) {
      return -1;
    }
  }
  return time - 1;
}

double timeOf(const std::string& line) { return std::strtod(line.c_str() + line.find("\"time\":") + 7, nullptr); }

struct Recording {
  StatTest::TempDir temp{"heron-record-bench"};
  std::string dir;
  double first = 0;
  double last = -1;
  std::string error;
  Recording() {
    const char* given = std::getenv("HERON_RECORDING");
    dir = given != nullptr && given[0] != '\0' ? given : temp.path();
    std::string line;
    if (dir == temp.path() && makeRecording(dir, error) < 0) {
      return;
    }
    if (Stat::recordedSample(dir, 0, line, error)) {
      first = timeOf(line);
    }
    if (Stat::recordedSample(dir, -1, line, error)) {
      last = timeOf(line);
    }
  }
};

const Recording& recording() {
  static const Recording made;
  return made;
}

// range(0): where the moment lies, in hundredths of the recording.
void BM_RecordedSampleAt(benchmark::State& state) {
  const Recording& rec = recording();
  if (rec.last < 0) {
    state.SkipWithError(rec.error.c_str());
    return;
  }
  const double at = rec.first + (rec.last - rec.first) * static_cast<double>(state.range(0)) / 100 + 0.4;
  std::string line;
  std::string error;
  for (auto _ : state) {
    if (!Stat::recordedSample(rec.dir, at, line, error)) {
      state.SkipWithError(error.c_str());
      return;
    }
    benchmark::DoNotOptimize(line.data());
  }
  state.counters["files"] = static_cast<double>(Stat::recordFiles(rec.dir).size());
  state.counters["MiB"] = static_cast<double>(recordedBytes(rec.dir)) / (1 << 20);
  state.counters["samples"] = rec.last - rec.first + 1;
}
BENCHMARK(BM_RecordedSampleAt)->Arg(0)->Arg(50)->Arg(99)->Unit(benchmark::kMillisecond);

void BM_RecordedSampleLatest(benchmark::State& state) {
  const Recording& rec = recording();
  std::string line;
  std::string error;
  for (auto _ : state) {
    if (!Stat::recordedSample(rec.dir, -1, line, error)) {
      state.SkipWithError(error.c_str());
      return;
    }
    benchmark::DoNotOptimize(line.data());
  }
}
BENCHMARK(BM_RecordedSampleLatest)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--make") == 0) {
    std::string error;
    const double last = makeRecording(argv[2], error);
    if (last < 0) {
      std::fprintf(stderr, "record_bench --make: %s\n", error.c_str());
      return 1;
    }
    std::printf("%.0f %.0f\n", kFirstSecond, last);
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

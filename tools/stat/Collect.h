// The collectors: fill a Sample from the table files and /proc through the
// runtime readers and the client discovery of `heron -A`, read-only.
//
// A sample reads, for each table: the owner file and the ember (pread), the
// two queue headers and the allocator (mapped read-only, unmapped before the
// next table), and once for all tables the memory maps of every process
// (HeronClientScanner's walk). Nothing is kept open between samples.
#pragma once

#include <string>

#include "Model.h"

namespace Stat {

struct CollectOptions {
  std::string expr;           // as heron: empty = every table, a glob, or a prefix
  bool allRoots = false;      // also tables outside the root that a process maps
  bool walkProcesses = true;  // false: no /proc reading at all (clients unknown)
  // Copied into the Sample, for the Prometheus renderer.
  bool perRegionSeries = false;
};

// Thresholds that turn facts into states and problems.
struct Thresholds {
  double staleSeconds = 5;
  double warnAllocPercent = 90;
  double critAllocPercent = 0;  // 0: off
};

// Takes one sample (no rates). Facts only: states and problems come from
// assess(). File errors become Table::problems via assess as well.
Sample collect(const CollectOptions& options);

// Rates and time to switch of `after` from `before` (same table paths, same
// writer identity, counters not going back).
void deriveRates(const Sample& before, Sample& after);

// Sets each table's state and problems from its facts and `thresholds`.
// Idempotent: reading problems kept in Table::fileErrors are carried over.
void assess(Sample& sample, const Thresholds& thresholds);

}  // namespace Stat

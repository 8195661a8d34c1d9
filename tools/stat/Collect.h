// The collectors: fill a Sample from the table files and /proc through the
// runtime readers and the client discovery of `heron -A`, read-only.
//
// A sample reads, for each table: the owner file and the ember (pread), the
// two queue headers and the allocator (mapped read-only, unmapped before the
// next table, unless kept for the next sample), and once for all tables the
// memory maps of every process (the runtime's walk of every process's maps).
#pragma once

#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "Beacon/ProcPid.h"
#include "Model.h"

namespace Stat {

struct CollectOptions {
  std::string expr;                  // as heron: empty = every table, a glob, or a prefix
  bool allRoots = false;             // also tables outside the root that a process maps
  std::vector<std::string> exclude;  // globs (* may cross /) of tables left out
  // false: no walk of the processes' maps (clients unknown); /proc is still
  // read to find a writer that runs in another PID namespace.
  bool walkProcesses = true;
  // Copied into the Sample, for the Prometheus renderer.
  bool perRegionSeries = false;
};

// Thresholds that turn facts into states and problems.
struct Thresholds {
  double staleSeconds = 5;
  double warnAllocPercent = 90;
  double critAllocPercent = 0;  // 0: off
};

class KeptReaders;  // CollectKept.h

// The collectors' debug handler ("HeronStat"), shared by their units.
Beacon::Platform::DebugHandler& collectHandler();

// Takes one sample (no rates). Facts only: states and problems come from
// assess(). File errors become Table::problems via assess as well. With
// `kept`, the tables' readers are kept for the next sample with the same
// `kept` (the long-running modes), which then reads only what changed.
Sample collect(const CollectOptions& options, KeptReaders* kept = nullptr);

// What /healthz needs, without reading any table's files beyond its owner:
// the root's state and, for an EXPR, whether any table matches (each
// matching table is in the result with its name only). Cheap enough to
// answer every probe.
Sample probe(const CollectOptions& options);

// Finds the process of a writer whose ember has been read into `writer` and
// sets liveness, hostPid, alive and mapsTable. In our own PID namespace (or
// with no namespace in the ember) the ember pid is judged as it stands;
// otherwise the writer is the process of the ember's namespace whose
// innermost pid is the ember's. Where that namespace cannot be seen, the
// liveness is left to the heartbeat (alive unknown). `readWrite`: the pids
// that map the table read-write, when the walk saw every process; else
// null. `readProc`: whether a live pid's status may be read (zombies).
void judgeWriter(Writer& writer, Beacon::Proc::PidNamespaceIndex& namespaces, const std::vector<int>* readWrite,
                 bool readProc);

// Rates and time to switch of `after` from `before` (same table paths, same
// writer identity, counters not going back).
void deriveRates(const Sample& before, Sample& after);

// "no table matches 'EXPR' under ROOT (N tables there)".
std::string noMatchText(const Sample& sample);

// Sets each table's state and problems from its facts and `thresholds`.
// Idempotent: reading problems kept in Table::fileErrors are carried over.
void assess(Sample& sample, const Thresholds& thresholds);

}  // namespace Stat

// One sample of a collection: plain data, filled by the collectors
// (Collect.h) and printed by the renderers (Render.h). Nothing else reads
// the table files.
//
// Figures that could not be read are absent (std::optional empty, or the
// section's `known` false), never a confident zero: renderers print them as
// "-" in text, null in JSON and leave the metric out in Prometheus.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Stat {

// Worst first in severity order: Broken > Dead > Stale > Ok.
enum class State { Ok = 0, Stale = 1, Dead = 2, Broken = 3 };
// "ok", "stale", "dead", "broken".
const char* stateName(State state);

enum class Severity { Warning, Critical };
// "warning", "critical".
const char* severityName(Severity severity);

struct Problem {
  Severity severity = Severity::Warning;
  std::string text;
};

// Yes, no, or could not tell (no rights to look).
enum class Seen { Unknown, Yes, No };

// What a writer's liveness was judged from: its process, found in the PID
// namespace the ember names, or its heartbeat alone, where that namespace
// cannot be seen from here (heron-stat runs in another container).
enum class Liveness { Process, Heartbeat };
// "process", "heartbeat".
const char* livenessName(Liveness liveness);

struct Identity {
  std::string name;  // relative to the root; the full path for tables outside it
  std::string path;
  bool ownerKnown = false;  // the owner file was read and valid
  std::uint32_t type = 0;   // SharedMem::SharedMemType
  std::string typeName;
  std::uint32_t creatorPid = 0;
  double createdSeconds = 0;  // since the epoch
  std::string host;
};

struct Writer {
  bool known = false;  // the ember was read and valid (a table never written has none)
  std::uint32_t pid = 0;
  std::uint16_t emberPid = 0;
  std::uint16_t instance = 0;
  std::uint32_t restarts = 0;
  double startedSeconds = 0;  // since the epoch
  std::optional<double> heartbeatAgeSeconds;
  bool monotonicHeartbeat = false;  // age from the monotonic beat, not the wall clock
  Seen alive = Seen::Unknown;
  Seen mapsTable = Seen::Unknown;  // the pid maps the table read-write
  // The ember's pids are the writer's own, in its PID namespace.
  std::uint64_t pidNamespace = 0;  // from the ember; 0 from a writer that predates it
  std::uint32_t hostPid = 0;       // the writer's process as seen from here; 0 when not found
  Liveness liveness = Liveness::Process;
};

struct Clients {
  // False when the /proc walk could not see every process (not root) or was
  // not made: the lists then hold only what was seen, and count for nothing.
  bool known = false;
  std::vector<int> writers;
  std::vector<int> shadows;
};

struct QueueTable {
  std::uint32_t capacity = 0;
  std::uint32_t position = 0;
  std::uint64_t epoch = 0;
};

struct Queues {
  bool known = false;
  unsigned active = 1;  // 1 or 2
  QueueTable tables[2];
  std::uint64_t sequence = 0;  // latest writer sequence
  std::uint32_t tableVersion = 0;
  double fillRatio = 0;  // of the active table
  // From two samples; absent with one sample or when the writer changed.
  std::optional<double> ratePerSecond;
  // Absent when there is no rate or it is 0.
  std::optional<double> secondsToSwitch;
};

struct Region {
  std::uint32_t id = 0;
  std::uint32_t entrySize = 0;
  std::uint32_t units = 0;
  std::uint32_t used = 0;
  std::uint32_t freePages = 0;
  bool consistent = true;
  double occupancyRatio() const { return units == 0 ? 0.0 : static_cast<double>(used) / units; }
};

struct Allocator {
  bool known = false;
  std::uint64_t bytes = 0;
  std::uint64_t usedBytes = 0;
  std::uint64_t freePages = 0;
  std::uint64_t allocations = 0;
  std::uint64_t releases = 0;
  std::optional<double> allocationsPerSecond;
  std::optional<double> releasesPerSecond;
  std::vector<Region> regions;  // by id
  std::optional<Region> fullest;
  std::uint64_t freeBytes() const { return bytes - usedBytes; }
  double occupancyRatio() const { return bytes == 0 ? 0.0 : static_cast<double>(usedBytes) / bytes; }
};

struct Table {
  Identity identity;
  State state = State::Ok;
  Writer writer;
  Clients clients;
  Queues queues;
  Allocator allocator;
  // Why the table is broken: one line per missing or invalid file, as its
  // reader says it. assess() turns them into problems.
  std::vector<std::string> fileErrors;
  std::vector<Problem> problems;
  // CLOCK_MONOTONIC when the counters were read: rates divide by the time
  // between two such reads of the same table.
  double readMonotonicSeconds = 0;

  // An archive (owner type 3) kept without a writer: it has none, or the one
  // it had is gone. Such a table is ok, and has no writer to be up or down.
  bool keptWithoutWriter() const {
    constexpr std::uint32_t kArchive = 3;
    return identity.ownerKnown && identity.type == kArchive && (!writer.known || writer.alive == Seen::No);
  }
};

struct Sample {
  std::string root;
  double timeSeconds = 0;       // wall clock at the start, since the epoch
  double monotonicSeconds = 0;  // the same moment on CLOCK_MONOTONIC
  double durationSeconds = 0;   // time the sample took
  double intervalSeconds = 0;   // between the samples the rates come from; 0: no rates
  bool clientsWalked = false;   // the /proc walk ran
  bool clientsKnown = false;    // ... and every process's maps could be read
  // The root exists, is a directory and could be listed; rootError says why
  // not. A wrong root is never "no tables, all fine".
  bool rootOk = true;
  std::string rootError;
  std::vector<Table> tables;      // in name order
  std::vector<Problem> problems;  // about the collection, not one table
};

}  // namespace Stat

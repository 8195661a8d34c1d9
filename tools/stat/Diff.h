// heron-stat --diff OLD NEW: what changed between two moments of a
// collection (two bundles, or a bundle and the live root), per table.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Model.h"
#include "Stat.h"

namespace Stat {

struct WriterMark {
  bool known = false;
  std::optional<std::uint32_t> pid;  // as seen from where the sample was taken
  std::uint16_t instance = 0;
  std::uint32_t restarts = 0;
};

struct TableDiff {
  std::string name;
  State before = State::Ok;
  State after = State::Ok;
  // Queues, when both moments read them.
  bool queuesKnown = false;
  std::uint64_t sequenceBefore = 0;
  std::uint64_t sequenceAfter = 0;
  // Absent when the writer changed (sequences of two writers do not
  // subtract) or the sequence went back.
  std::optional<std::uint64_t> advance;
  std::optional<double> ratePerSecond;
  std::optional<std::uint32_t> switches;  // active-table switches, from the table version
  WriterMark writerBefore;
  WriterMark writerAfter;
  bool writerChanged = false;  // pid, instance or restarts differ
  std::vector<std::uint32_t> regionsAdded;
  std::vector<std::uint32_t> regionsRemoved;
  // Allocator, when both moments read it.
  bool allocatorKnown = false;
  double occupancyBefore = 0;
  double occupancyAfter = 0;
  std::int64_t usedBytesChange = 0;
  std::optional<std::uint64_t> allocations;  // counted between the moments
  std::optional<std::uint64_t> releases;
};

struct SampleDiff {
  std::string before;  // where each moment came from: a bundle, or "live"
  std::string after;
  double timeBefore = 0;
  double timeAfter = 0;
  std::vector<std::string> appeared;  // tables only the later moment has
  std::vector<std::string> vanished;  // ... only the earlier one
  std::vector<TableDiff> tables;      // in both, by name
};

SampleDiff diffSamples(const Sample& before, const Sample& after);

// A few lines per table; "no change" for a table where nothing moved.
std::string renderDiffText(const SampleDiff& diff);
// One JSON document, one line.
std::string renderDiffJson(const SampleDiff& diff);

// Runs --diff: each side a bundle, the later one "-" for the live root.
int diff(const Options& options);

}  // namespace Stat

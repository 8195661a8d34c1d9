// The region scanner's two printed sections: the allocator's statistics
// (printStats) and the dump of the regions' entries (scanRegions).
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iostream>

#include "Quarry/Offset.h"
#include "Quarry/QuarryReader.h"
#include "Quarry/Region.h"

namespace Quarry {

namespace {

// The scanner's own output: the caller's stream, the named file, appended
// to, or standard output. The first failed write to the named file leaves
// its errno in `error` (writes to the other two are the caller's to check).
class Output {
 public:
  Output(std::ostream* routed, const std::string& name, int& error)
      : routed_(routed), named_(routed == nullptr && !name.empty()), error_(error) {
    if (named_) {
      file_.open(name, std::ios::out | std::ios::app);
      if (!file_) {
        std::cerr << "Error opening " << name << std::endl;
        record();
      }
    }
  }
  ~Output() { stream().flush(); }
  // A file that could not be opened swallows the output (the failure was
  // reported); it never falls back to standard output.
  std::ostream& stream() {
    if (routed_ != nullptr) {
      return *routed_;
    }
    return named_ ? static_cast<std::ostream&>(file_) : std::cout;
  }
  void write(const std::string& text) {
    errno = 0;
    stream() << text;
    if (routed_ != nullptr) {
      return;  // flushed once, at the end of the section
    }
    stream().flush();
    if (named_ && !file_) {
      record();
    }
  }

 private:
  void record() {
    if (error_ == 0) {
      error_ = errno != 0 ? errno : EIO;
    }
  }

  std::ostream* routed_;
  bool named_;
  int& error_;
  std::ofstream file_;
};

// "  inconsistent: used count N, bitmap M", or "" when the counts agree.
std::string countMark(const RegionStats& row) {
  return row.countsAgree() ? std::string()
                           : fmt::format("  inconsistent: used count {}, bitmap {}", row.usedCount, row.inBitmap);
}

// One row per region, sorted by entry size and then by id, or by entry
// size and then by occupancy.
void appendRegionRows(std::string& text, std::vector<RegionStats>& rows, bool sortByOccupancy) {
  if (sortByOccupancy) {
    std::sort(rows.begin(), rows.end(), [](const RegionStats& a, const RegionStats& b) {
      if (a.unitSize != b.unitSize) {
        return a.unitSize < b.unitSize;
      }
      // used/units compared exactly; an empty region counts as 0.
      const std::uint64_t left = static_cast<std::uint64_t>(a.used()) * (b.units == 0 ? 1 : b.units);
      const std::uint64_t right = static_cast<std::uint64_t>(b.used()) * (a.units == 0 ? 1 : a.units);
      return left != right ? left < right : a.id < b.id;
    });
  } else {
    std::sort(rows.begin(), rows.end(), [](const RegionStats& a, const RegionStats& b) {
      return a.unitSize != b.unitSize ? a.unitSize < b.unitSize : a.id < b.id;
    });
  }
  auto out = std::back_inserter(text);
  fmt::format_to(out, "{:>8}{:>12}{:>10}{:>10}{:>11}{:>12}{:>14}\n", "region", "entry size", "units", "used",
                 "occupancy", "free pages", "bytes");
  for (const RegionStats& row : rows) {
    fmt::format_to(out, "{:>8}{:>12}{:>10}{:>10}{:>10}%{:>12}{:>14}{}\n", row.id, row.unitSize, row.units, row.used(),
                   row.usedPercent(), row.freePages, row.bytes(), row.copySettled ? countMark(row) : "  inconsistent");
  }
}

constexpr unsigned kPreviewBytes = 16;

void appendPreview(std::string& line, const unsigned char* bytes, unsigned count) {
  for (unsigned i = 0; i < kPreviewBytes; ++i) {
    if (i < count) {
      fmt::format_to(std::back_inserter(line), "{:02x} ", bytes[i]);
    } else {
      line += "   ";
    }
  }
  line += " |";
  for (unsigned i = 0; i < count; ++i) {
    line += (bytes[i] >= 0x20 && bytes[i] < 0x7f) ? static_cast<char>(bytes[i]) : '.';
  }
  line += "|";
}

}  // namespace

template <typename Scanner>
void QuarryScannerBase<Scanner>::printStats(bool detail, bool sortByOccupancy) {
  AllocatorStats stats = readStats();
  std::string text;
  auto out = std::back_inserter(text);
  fmt::format_to(out, "Region allocator statistics\n");
  if (!this->listError_.empty()) {
    // No region figure would be true: only the allocator's own counters.
    fmt::format_to(out, "  regions: {}\n", this->listError_);
  } else {
    fmt::format_to(out, "  {:<14}{}\n", "regions", stats.regions.size());
    fmt::format_to(out, "  {:<14}{}\n", "bytes", stats.bytes);
    fmt::format_to(out, "  {:<14}{}\n", "used", stats.usedBytes);
    fmt::format_to(out, "  {:<14}{}\n", "free", stats.freeBytes());
    fmt::format_to(out, "  {:<14}{}\n", "pages free", stats.freePages);
    fmt::format_to(out, "  {:<14}{}%\n", "occupancy", stats.occupancyPercent());
  }
  fmt::format_to(out, "  {:<14}{}\n", "allocations", stats.allocations);
  fmt::format_to(out, "  {:<14}{}{}\n", "releases", stats.releases,
                 stats.countersSettled ? "" : "  (counters inconsistent)");
  if (this->listError_.empty()) {
    if (detail || sortByOccupancy) {
      appendRegionRows(text, stats.regions, sortByOccupancy);
    }
    for (const BadRegion& bad : this->badRegions_) {
      fmt::format_to(out, "  region {}: {}; skipped\n", bad.id, bad.reason);
    }
  }
  Output output(routed_, outputFile_, outputError_);
  output.write(text);
}

namespace {

// The regions a scan prints, in id order: those attached and those refused
// (all of them, or those asked for), and every id asked for that is neither.
template <typename Regions>
std::vector<std::uint32_t> scanOrder(const std::unordered_set<unsigned>& asked, const Regions& regions,
                                     const std::vector<BadRegion>& bad) {
  std::vector<std::uint32_t> ids;
  for (const auto& entry : regions) {
    if (asked.empty() || asked.count(entry.first) != 0) {
      ids.push_back(entry.first);
    }
  }
  for (const BadRegion& region : bad) {
    if (asked.empty() || asked.count(region.id) != 0) {
      ids.push_back(region.id);
    }
  }
  for (unsigned id : asked) {
    if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
      ids.push_back(id);
    }
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

// One region's heading and its used entries (every entry with
// `printEmpty`), from a consistent copy; a region that stayed inconsistent
// says so instead.
void appendRegionEntries(std::string& text, std::uint32_t id, const RegionScanner& region, RegionSnapshot& copy,
                         bool printEmpty) {
  auto out = std::back_inserter(text);
  const RegionHeader& h = region.header();
  region.snapshot(copy, kPreviewBytes, kCopyAttempts, printEmpty);
  const std::uint32_t units = h.unitCount;
  if (!copy.consistent) {
    fmt::format_to(out, "Region {}: entry size {}, units {}: inconsistent after {} attempts; entries not shown\n", id,
                   h.unitSize, units, copy.attempts);
    return;
  }
  const RegionStats count = regionStatsOf(region, copy);
  fmt::format_to(out, "Region {}: entry size {}, units {}, used {}, generation {}{}\n", id, h.unitSize, units,
                 count.used(), copy.generation, countMark(count));
  fmt::format_to(out, "  {:<10} {:>7} {:>7}  {}\n", "offset", "unit", "size", "preview");
  std::size_t next = 0;  // index into copy.used
  for (std::uint32_t unit = 0; unit < units; ++unit) {
    const bool used = next < copy.used.size() && copy.used[next] == unit;
    if (!used && !printEmpty) {
      // Jump to the next used unit.
      if (next >= copy.used.size()) {
        break;
      }
      unit = copy.used[next] - 1;
      continue;
    }
    fmt::format_to(out, "  0x{:08x} {:>7} {:>7}  ", Offset::encode(id, unit), unit, h.unitSize);
    // With printEmpty the previews cover every unit: a free one shows what
    // its last entry left in memory.
    const std::size_t at = copy.everyUnit ? unit : next;
    appendPreview(text, copy.previews.data() + at * copy.previewBytes, copy.previewBytes);
    if (used) {
      ++next;
    } else {
      text += "  free";
    }
    text += '\n';
  }
}

}  // namespace

template <typename Scanner>
void QuarryScannerBase<Scanner>::scanRegions(const std::unordered_set<unsigned>& regionIds, bool printEmpty) {
  if (regionIds.empty()) {
    this->attachRegions();
  } else {
    // Only the regions asked for are mapped: with many large regions,
    // mapping all of them can exhaust the address space.
    this->attachRegions(regionIds);
  }
  const std::vector<std::uint32_t> ids = scanOrder(regionIds, this->regions_, this->badRegions_);

  Output output(routed_, outputFile_, outputError_);
  if (!this->listError_.empty()) {
    output.write("Region allocator: " + this->listError_ + "\n");
    return;
  }
  if (ids.empty()) {
    output.write("Region allocator: no regions\n");
    return;
  }
  RegionSnapshot copy;
  std::string text;
  for (std::uint32_t id : ids) {
    text.clear();
    auto out = std::back_inserter(text);
    // A region deleted since the scan began is skipped.
    this->pollEvents();
    auto found = this->regions_.find(id);
    if (found == this->regions_.end()) {
      auto bad = std::find_if(this->badRegions_.begin(), this->badRegions_.end(),
                              [id](const BadRegion& b) { return b.id == id; });
      if (bad != this->badRegions_.end()) {
        fmt::format_to(out, "Region {}: {}; skipped\n", id, bad->reason);
      } else if (regionIds.count(id) != 0) {
        fmt::format_to(out, "Region {}: not found\n", id);
      }
      output.write(text);
      continue;
    }
    appendRegionEntries(text, id, *found->second, copy, printEmpty);
    output.write(text);
  }
}

template void QuarryScannerBase<NoMapScanner>::printStats(bool, bool);
template void QuarryScannerBase<NoMapScanner>::scanRegions(const std::unordered_set<unsigned>&, bool);

}  // namespace Quarry

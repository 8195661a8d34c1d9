// Two samples compared table by table: the counters' advance between them,
// the writer's identity, the region set and the allocator's use.
#include "Diff.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>

#include "Bundle.h"
#include "Health.h"
#include "Output.h"
#include "Render.h"

namespace Stat {

namespace {

using Json = nlohmann::ordered_json;

WriterMark markOf(const Writer& writer) {
  WriterMark mark;
  mark.known = writer.known;
  if (writer.known) {
    mark.pid = hostPid(writer);
    if (!mark.pid) {
      mark.pid = writer.pid;
    }
    mark.instance = writer.instance;
    mark.restarts = writer.restarts;
  }
  return mark;
}

bool sameWriter(const WriterMark& a, const WriterMark& b) {
  return a.known == b.known && a.pid == b.pid && a.instance == b.instance && a.restarts == b.restarts;
}

std::vector<std::uint32_t> regionIds(const Allocator& allocator) {
  std::vector<std::uint32_t> ids;
  for (const Region& region : allocator.regions) {
    ids.push_back(region.id);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

void diffQueues(const Table& before, const Table& after, double seconds, TableDiff& out) {
  const Queues& was = before.queues;
  const Queues& is = after.queues;
  out.queuesKnown = was.known && is.known;
  if (!out.queuesKnown) {
    return;
  }
  out.sequenceBefore = was.sequence;
  out.sequenceAfter = is.sequence;
  if (!out.writerChanged && is.sequence >= was.sequence) {
    out.advance = is.sequence - was.sequence;
    if (seconds > 0) {
      out.ratePerSecond = static_cast<double>(*out.advance) / seconds;
    }
  }
  if (!out.writerChanged && is.tableVersion >= was.tableVersion) {
    out.switches = is.tableVersion - was.tableVersion;
  }
}

void diffAllocator(const Allocator& was, const Allocator& is, bool sameWriterThroughout, TableDiff& out) {
  const std::vector<std::uint32_t> before = regionIds(was);
  const std::vector<std::uint32_t> after = regionIds(is);
  std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(out.regionsAdded));
  std::set_difference(before.begin(), before.end(), after.begin(), after.end(), std::back_inserter(out.regionsRemoved));
  out.allocatorKnown = was.known && is.known;
  if (!out.allocatorKnown) {
    return;
  }
  out.occupancyBefore = was.occupancyRatio();
  out.occupancyAfter = is.occupancyRatio();
  out.usedBytesChange = static_cast<std::int64_t>(is.usedBytes) - static_cast<std::int64_t>(was.usedBytes);
  if (sameWriterThroughout && is.allocations >= was.allocations && is.releases >= was.releases) {
    out.allocations = is.allocations - was.allocations;
    out.releases = is.releases - was.releases;
  }
}

std::string stamp(double seconds) { return utcTime(seconds, "%Y-%m-%d %H:%M:%S UTC"); }

std::string writerText(const WriterMark& mark) {
  if (!mark.known) {
    return "none";
  }
  return fmt::format("pid {} instance {} restarts {}", mark.pid ? std::to_string(*mark.pid) : "-", mark.instance,
                     mark.restarts);
}

std::string idList(const std::vector<std::uint32_t>& ids) { return fmt::format("{}", fmt::join(ids, ", ")); }

bool unchanged(const TableDiff& table) {
  return table.before == table.after && !table.writerChanged && table.sequenceBefore == table.sequenceAfter &&
         table.switches.value_or(0) == 0 && table.regionsAdded.empty() && table.regionsRemoved.empty() &&
         table.usedBytesChange == 0 && table.allocations.value_or(0) == 0 && table.releases.value_or(0) == 0;
}

void tableText(const TableDiff& table, std::string& out) {
  const std::string name = printable(table.name);
  if (unchanged(table)) {
    out += fmt::format("{}  {}, no change\n", name, stateName(table.after));
    return;
  }
  std::vector<std::string> lines;
  if (table.queuesKnown) {
    std::string line = fmt::format("sequence {} -> {}", table.sequenceBefore, table.sequenceAfter);
    if (table.advance) {
      line += fmt::format(" (+{}", *table.advance);
      line += table.ratePerSecond ? fmt::format(", {:.1f}/s)", *table.ratePerSecond) : ")";
    }
    if (table.switches) {
      line += fmt::format(", {} queue switch{}", *table.switches, *table.switches == 1 ? "" : "es");
    }
    lines.push_back(line);
  }
  if (table.writerChanged) {
    lines.push_back("writer " + writerText(table.writerBefore) + " -> " + writerText(table.writerAfter));
  }
  if (!table.regionsAdded.empty() || !table.regionsRemoved.empty()) {
    lines.push_back(
        fmt::format("regions added [{}], removed [{}]", idList(table.regionsAdded), idList(table.regionsRemoved)));
  }
  if (table.allocatorKnown) {
    std::string line = fmt::format("allocator {:.1f}% -> {:.1f}% used ({:+} bytes)", table.occupancyBefore * 100,
                                   table.occupancyAfter * 100, table.usedBytesChange);
    if (table.allocations) {
      line += fmt::format(", {} allocations, {} releases", *table.allocations, *table.releases);
    }
    lines.push_back(line);
  }
  out += fmt::format("{}  {} -> {}\n", name, stateName(table.before), stateName(table.after));
  for (const std::string& line : lines) {
    out += "  " + line + "\n";
  }
}

Json optionalJson(const std::optional<std::uint64_t>& value) { return value ? Json(*value) : Json(nullptr); }

Json writerJson(const WriterMark& mark) {
  if (!mark.known) {
    return nullptr;
  }
  Json out = Json::object();
  out["pid"] = mark.pid ? Json(*mark.pid) : Json(nullptr);
  out["instance"] = mark.instance;
  out["restarts"] = mark.restarts;
  return out;
}

Json tableJson(const TableDiff& table) {
  Json out = Json::object();
  out["name"] = table.name;
  out["state_before"] = stateName(table.before);
  out["state_after"] = stateName(table.after);
  Json queues = nullptr;
  if (table.queuesKnown) {
    queues = Json::object();
    queues["sequence_before"] = table.sequenceBefore;
    queues["sequence_after"] = table.sequenceAfter;
    queues["advance"] = optionalJson(table.advance);
    queues["rate_per_second"] = table.ratePerSecond ? Json(*table.ratePerSecond) : Json(nullptr);
    queues["switches"] = table.switches ? Json(*table.switches) : Json(nullptr);
  }
  out["queues"] = std::move(queues);
  out["writer_changed"] = table.writerChanged;
  out["writer_before"] = writerJson(table.writerBefore);
  out["writer_after"] = writerJson(table.writerAfter);
  out["regions_added"] = table.regionsAdded;
  out["regions_removed"] = table.regionsRemoved;
  Json allocator = nullptr;
  if (table.allocatorKnown) {
    allocator = Json::object();
    allocator["occupancy_ratio_before"] = table.occupancyBefore;
    allocator["occupancy_ratio_after"] = table.occupancyAfter;
    allocator["used_bytes_change"] = table.usedBytesChange;
    allocator["allocations"] = optionalJson(table.allocations);
    allocator["releases"] = optionalJson(table.releases);
  }
  out["allocator"] = std::move(allocator);
  return out;
}

// One side: a bundle, or "-" for a live sample (with rates over -i).
bool sideSample(const std::string& source, const Options& options, Sample& sample, std::string& error) {
  if (source != "-") {
    return fromBundle(source, options.collect, options.thresholds, sample, error);
  }
  sample = collect(options.collect);
  assess(sample, options.thresholds);
  error = sampleTrouble(sample);
  return error.empty();
}

}  // namespace

SampleDiff diffSamples(const Sample& before, const Sample& after) {
  SampleDiff out;
  out.timeBefore = before.timeSeconds;
  out.timeAfter = after.timeSeconds;
  std::map<std::string, const Table*> earlier;
  for (const Table& table : before.tables) {
    earlier.emplace(table.identity.name, &table);
  }
  const double seconds = after.timeSeconds - before.timeSeconds;
  for (const Table& table : after.tables) {
    const auto found = earlier.find(table.identity.name);
    if (found == earlier.end()) {
      out.appeared.push_back(table.identity.name);
      continue;
    }
    const Table& was = *found->second;
    earlier.erase(found);
    TableDiff entry;
    entry.name = table.identity.name;
    entry.before = was.state;
    entry.after = table.state;
    entry.writerBefore = markOf(was.writer);
    entry.writerAfter = markOf(table.writer);
    entry.writerChanged = !sameWriter(entry.writerBefore, entry.writerAfter);
    diffQueues(was, table, seconds, entry);
    diffAllocator(was.allocator, table.allocator, !entry.writerChanged, entry);
    out.tables.push_back(std::move(entry));
  }
  for (const auto& gone : earlier) {
    out.vanished.push_back(gone.first);
  }
  return out;
}

std::string renderDiffText(const SampleDiff& diff) {
  std::string out = fmt::format("{} ({}) -> {} ({}), {:.1f} s apart\n", printable(diff.before), stamp(diff.timeBefore),
                                printable(diff.after), stamp(diff.timeAfter), diff.timeAfter - diff.timeBefore);
  for (const std::string& name : diff.appeared) {
    out += "appeared  " + printable(name) + "\n";
  }
  for (const std::string& name : diff.vanished) {
    out += "vanished  " + printable(name) + "\n";
  }
  for (const TableDiff& table : diff.tables) {
    tableText(table, out);
  }
  return out;
}

std::string renderDiffJson(const SampleDiff& diff) {
  Json out = Json::object();
  out["before"] = diff.before;
  out["after"] = diff.after;
  out["time_before"] = diff.timeBefore;
  out["time_after"] = diff.timeAfter;
  out["seconds"] = diff.timeAfter - diff.timeBefore;
  out["appeared"] = diff.appeared;
  out["vanished"] = diff.vanished;
  Json& tables = out["tables"] = Json::array();
  for (const TableDiff& table : diff.tables) {
    tables.push_back(tableJson(table));
  }
  return out.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

int diff(const Options& options) {
  Sample before;
  Sample after;
  std::string error;
  if (!sideSample(options.diff[0], options, before, error) || !sideSample(options.diff[1], options, after, error)) {
    std::cerr << "heron-stat: " << printable(error) << std::endl;
    return 1;
  }
  SampleDiff result = diffSamples(before, after);
  result.before = options.diff[0];
  result.after = options.diff[1] == "-" ? "live" : options.diff[1];
  const std::string text = options.json ? renderDiffJson(result) : renderDiffText(result);
  std::string why;
  if (!writeAll(STDOUT_FILENO, text, why)) {
    std::cerr << "heron-stat: cannot write the report: " << printable(why) << std::endl;
    return 1;
  }
  return 0;
}

}  // namespace Stat

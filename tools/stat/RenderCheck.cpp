// --check: a verdict for Nagios, Icinga and other monitoring-plugin hosts.
//
//   HERON CRITICAL - 1 of 5 tables dead: orders | tables=5 ok=4 stale=0 dead=1 broken=0 alloc_max=14%;90;;0;100
//     oldest_heartbeat=0.102s;5;;0; sample_duration=0.004100s   (one line)
//   CRITICAL: orders: writer 4711 is not running
//
// CRITICAL: a table dead or broken (or a critical threshold crossed);
// WARNING: a table stale, a region inconsistent, or a warning threshold
// crossed; UNKNOWN: no table to judge, a root that cannot be listed, an EXPR
// that matches nothing.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>

#include "Health.h"
#include "Render.h"

namespace Stat {

namespace {

const char* statusName(int status) {
  static const char* const kNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
  return kNames[std::min(std::max(status, 0), 3)];
}

// "orders, md/eu/quotes" for at most a few names, then "and N more".
std::string nameList(const std::vector<std::string>& names) {
  constexpr std::size_t kShown = 5;
  std::string out;
  for (std::size_t i = 0; i < names.size() && i < kShown; ++i) {
    out += (i == 0 ? "" : ", ") + names[i];
  }
  if (names.size() > kShown) {
    out += fmt::format(" and {} more", names.size() - kShown);
  }
  return out;
}

// Text for a plugin line: printable, and no '|', which would start the
// performance data (a table named "x|y=1" must not add a figure y).
std::string plain(const std::string& text) {
  std::string out;
  for (char c : printable(text)) {
    out += c == '|' ? std::string("\\x7c") : std::string(1, c);
  }
  return out;
}

// Perfdata: label=value[UOM];warn;crit;min;max
std::string perfdata(const Sample& sample, const Thresholds& thresholds, const std::size_t counts[4], double allocMax) {
  std::optional<double> oldest;
  for (const Table& table : sample.tables) {
    const std::optional<double>& age = table.writer.heartbeatAgeSeconds;
    if (table.writer.known && age && !table.keptWithoutWriter()) {
      oldest = std::max(oldest.value_or(0.0), *age);
    }
  }
  const std::string critAlloc = thresholds.critAllocPercent > 0 ? fmt::format("{:g}", thresholds.critAllocPercent) : "";
  return fmt::format(
      "tables={} ok={} stale={} dead={} broken={} alloc_max={:.0f}%;{:g};{};0;100 oldest_heartbeat={};{:g};;0; "
      "sample_duration={:.6f}s",
      sample.tables.size(), counts[0], counts[1], counts[2], counts[3], std::floor(allocMax),
      thresholds.warnAllocPercent, critAlloc, oldest ? fmt::format("{:.3f}s", *oldest) : std::string("U"),
      thresholds.staleSeconds, sample.durationSeconds);
}

}  // namespace

Verdict renderCheck(const Sample& sample, const Thresholds& thresholds) {
  // A root that cannot be listed or an EXPR that matches nothing leaves
  // nothing to judge: the verdict is unknown, never "0 tables, all fine".
  const std::string trouble = sampleTrouble(sample);
  if (!trouble.empty()) {
    return Verdict{3, "HERON UNKNOWN - " + plain(trouble) + "\n"};
  }
  std::size_t counts[4] = {0, 0, 0, 0};
  std::vector<std::string> byState[4];
  std::vector<std::string> overAlloc;
  int status = 0;
  double allocMax = 0;
  for (const Table& table : sample.tables) {
    const auto state = static_cast<std::size_t>(table.state);
    ++counts[state];
    byState[state].push_back(plain(table.identity.name));
    for (const Problem& problem : table.problems) {
      status = std::max(status, problem.severity == Severity::Critical ? 2 : 1);
    }
    if (table.allocator.known) {
      const double percent = table.allocator.occupancyRatio() * 100;
      allocMax = std::max(allocMax, percent);
      if (percent >= thresholds.warnAllocPercent ||
          (thresholds.critAllocPercent > 0 && percent >= thresholds.critAllocPercent)) {
        overAlloc.push_back(plain(table.identity.name));
      }
    }
  }
  if (counts[static_cast<std::size_t>(State::Broken)] + counts[static_cast<std::size_t>(State::Dead)] != 0) {
    status = 2;
  } else if (counts[static_cast<std::size_t>(State::Stale)] != 0) {
    status = std::max(status, 1);
  }
  const std::size_t total = sample.tables.size();
  std::string summary;
  if (total == 0) {
    status = 3;
    summary = "no table under " + plain(sample.root);
  } else {
    std::vector<std::string> parts;
    for (State state : {State::Broken, State::Dead, State::Stale}) {
      const auto index = static_cast<std::size_t>(state);
      if (counts[index] != 0) {
        parts.push_back(
            fmt::format("{} of {} tables {}: {}", counts[index], total, stateName(state), nameList(byState[index])));
      }
    }
    if (!overAlloc.empty()) {
      parts.push_back(fmt::format("allocator at or over {:g}%: {}", thresholds.warnAllocPercent, nameList(overAlloc)));
    }
    if (parts.empty()) {
      summary = fmt::format("{} tables ok", total);
    }
    for (std::size_t i = 0; i < parts.size(); ++i) {
      summary += (i == 0 ? "" : "; ") + parts[i];
    }
  }
  std::string text =
      fmt::format("HERON {} - {} | {}\n", statusName(status), summary, perfdata(sample, thresholds, counts, allocMax));
  const std::string note = clientsNote(sample);
  if (!note.empty()) {
    text += note + '\n';
  }
  for (const Problem& problem : sample.problems) {
    text +=
        fmt::format("{}: {}\n", problem.severity == Severity::Critical ? "CRITICAL" : "WARNING", plain(problem.text));
  }
  for (const Table& table : sample.tables) {
    for (const Problem& problem : table.problems) {
      text += fmt::format("{}: {}: {}\n", problem.severity == Severity::Critical ? "CRITICAL" : "WARNING",
                          plain(table.identity.name), plain(problem.text));
    }
  }
  return Verdict{status, text};
}

}  // namespace Stat

// The interactive view's text. Cells come from the aligned table's
// tableCells(), so both views say a figure the same way.
#include "TuiLayout.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <optional>

#include "Health.h"
#include "Render.h"

namespace Stat {
namespace Tui {

namespace {

constexpr std::size_t kName = 0;
constexpr std::size_t kState = 1;
constexpr std::size_t kBeat = 3;
constexpr std::size_t kFullest = 12;
// The optional columns, the first kept longest as the width shrinks.
constexpr std::size_t kByPriority[] = {9, 7, 11, 10, 2, 12, 5, 4, 6, 8};
constexpr std::size_t kNameMin = 12;
constexpr std::size_t kGap = 2;

Tone toneOf(State state) {
  switch (state) {
    case State::Broken:
    case State::Dead:
      return Tone::Bad;
    case State::Stale:
      return Tone::Stale;
    case State::Ok:
      break;
  }
  return Tone::Plain;
}

Line fitted(std::string text, std::size_t width, Tone tone = Tone::Plain) {
  while (!text.empty() && text.back() == ' ') {
    text.pop_back();
  }
  return Line{ellipsize(text, width), tone};
}

// A figure to sort by, highest first; none sorts last.
std::optional<double> sortFigure(const Table& table, SortKey key) {
  switch (key) {
    case SortKey::Rate:
      return table.queues.ratePerSecond;
    case SortKey::Fill:
      return table.queues.known ? std::optional<double>(table.queues.fillRatio) : std::nullopt;
    case SortKey::Allocation:
      return table.allocator.known ? std::optional<double>(table.allocator.occupancyRatio()) : std::nullopt;
    case SortKey::State:
      return static_cast<double>(table.state);
    case SortKey::Name:
      break;
  }
  return std::nullopt;
}

std::string clock(double seconds) { return utcTime(seconds, "%H:%M:%S"); }

std::string clientsWord(const Sample& sample) {
  if (!sample.clientsWalked) {
    return "clients not looked for";
  }
  return sample.clientsKnown ? "clients known" : "clients unknown (not root)";
}

}  // namespace

const char* sortName(SortKey key) {
  switch (key) {
    case SortKey::State:
      return "state";
    case SortKey::Name:
      return "name";
    case SortKey::Rate:
      return "rate";
    case SortKey::Fill:
      return "fill";
    case SortKey::Allocation:
      return "allocation";
  }
  return "state";
}

SortKey nextSort(SortKey key) {
  return key == SortKey::Allocation ? SortKey::State : static_cast<SortKey>(static_cast<int>(key) + 1);
}

bool nameMatches(const std::string& filter, const std::string& name) {
  if (filter.empty()) {
    return true;
  }
  if (filter.find_first_of("*?[") == std::string::npos) {
    return name.compare(0, filter.size(), filter) == 0;
  }
  return ::fnmatch(filter.c_str(), name.c_str(), 0) == 0;
}

std::vector<std::size_t> visibleTables(const Sample& sample, SortKey key, const std::string& filter) {
  std::vector<std::size_t> shown;
  for (std::size_t i = 0; i < sample.tables.size(); ++i) {
    if (nameMatches(filter, sample.tables[i].identity.name)) {
      shown.push_back(i);
    }
  }
  // sample.tables is in name order: a stable sort keeps it within ties.
  std::stable_sort(shown.begin(), shown.end(), [&sample, key](std::size_t a, std::size_t b) {
    if (key == SortKey::Name) {
      return sample.tables[a].identity.name < sample.tables[b].identity.name;
    }
    const std::optional<double> x = sortFigure(sample.tables[a], key);
    const std::optional<double> y = sortFigure(sample.tables[b], key);
    if (x && y) {
      return *x > *y;
    }
    return x.has_value() && !y.has_value();
  });
  return shown;
}

Line summaryLine(const Sample& sample, bool paused, std::size_t width) {
  const std::string trouble = sampleTrouble(sample);
  if (!trouble.empty()) {
    return fitted((paused ? "PAUSED  " : "") + printable(trouble), width, Tone::Bad);
  }
  std::size_t counts[4] = {};
  std::size_t problems = sample.problems.size();
  for (const Table& table : sample.tables) {
    ++counts[static_cast<int>(table.state)];
    problems += table.problems.size();
  }
  std::string text = paused ? "PAUSED  " : "";
  // The states present, worst first: "60 tables: 1 dead, 59 ok".
  text += fmt::format("{} tables:", sample.tables.size());
  const char* separator = " ";
  for (int state = 3; state >= 0; --state) {
    if (counts[state] > 0) {
      text += fmt::format("{}{} {}", separator, counts[state], stateName(static_cast<State>(state)));
      separator = ", ";
    }
  }
  text += fmt::format("  {} problem{}  {} UTC {:.0f} ms  {}", problems, problems == 1 ? "" : "s",
                      clock(sample.timeSeconds), sample.durationSeconds * 1000, clientsWord(sample));
  const Tone tone = counts[3] + counts[2] > 0 ? Tone::Bad : (counts[1] > 0 ? Tone::Stale : Tone::Plain);
  return fitted(text, width, tone);
}

std::vector<Line> problemLines(const Sample& sample, std::size_t width) {
  std::vector<Line> lines;
  auto add = [&lines, width](const Problem& problem, const std::string& where) {
    const Tone tone = problem.severity == Severity::Critical ? Tone::Bad : Tone::Stale;
    lines.push_back(fitted(fmt::format("{:<8}  {}{}", severityName(problem.severity), where, printable(problem.text)),
                           width, tone));
  };
  for (const Problem& problem : sample.problems) {
    add(problem, "");
  }
  for (const Table& table : sample.tables) {
    for (const Problem& problem : table.problems) {
      add(problem, printable(table.identity.name) + ": ");
    }
  }
  std::stable_sort(lines.begin(), lines.end(),
                   [](const Line& a, const Line& b) { return a.tone == Tone::Bad && b.tone != Tone::Bad; });
  return lines;
}

Columns fitColumns(const Sample& sample, const std::vector<std::size_t>& tables, std::size_t width) {
  const std::vector<std::string>& header = tableHeader();
  std::vector<std::size_t> natural(header.size());
  for (std::size_t i = 0; i < header.size(); ++i) {
    natural[i] = displayWidth(header[i]);
  }
  for (std::size_t index : tables) {
    const std::vector<std::string> cells = tableCells(sample.tables[index]);
    for (std::size_t i = 0; i < cells.size(); ++i) {
      natural[i] = std::max(natural[i], displayWidth(cells[i]));
    }
  }
  const std::size_t nameMin = std::min(natural[kName], kNameMin);
  std::vector<bool> keep(header.size(), false);
  keep[kName] = keep[kState] = keep[kBeat] = true;
  std::size_t used = nameMin + kGap + natural[kState] + kGap + natural[kBeat];
  for (std::size_t column : kByPriority) {
    if (used + kGap + natural[column] <= width) {
      keep[column] = true;
      used += kGap + natural[column];
    }
  }
  Columns columns;
  columns.width = width;
  for (std::size_t i = 0; i < header.size(); ++i) {
    if (keep[i]) {
      columns.shown.push_back(i);
      columns.widths.push_back(natural[i]);
    }
  }
  const std::size_t others = used - nameMin;
  columns.widths[0] = std::min(natural[kName], width > others + 1 ? width - others : std::size_t{1});
  return columns;
}

namespace {

Line cellsLine(const std::vector<std::string>& cells, const Columns& columns, Tone tone) {
  std::string text;
  std::size_t total = 0;
  for (std::size_t at = 0; at < columns.shown.size(); ++at) {
    const std::size_t column = columns.shown[at];
    const std::size_t width = columns.widths[at];
    const std::string cell = ellipsize(cells[column], width);
    const std::string pad(width - std::min(width, displayWidth(cell)), ' ');
    if (at != 0) {
      text += std::string(kGap, ' ');
    }
    const bool left = column == kName || column == kState || column == kFullest;
    text += left ? cell + pad : pad + cell;
    total += width + (at != 0 ? kGap : 0);
  }
  return fitted(text, std::min(total, columns.width), tone);
}

}  // namespace

Line headerLine(const Columns& columns) { return cellsLine(tableHeader(), columns, Tone::Header); }

Line tableLine(const Table& table, const Columns& columns) {
  return cellsLine(tableCells(table), columns, toneOf(table.state));
}

std::string bar(double ratio, std::size_t cells) {
  const double clamped = std::min(1.0, std::max(0.0, ratio));
  const auto full = static_cast<std::size_t>(std::lround(clamped * static_cast<double>(cells)));
  return "[" + std::string(full, '#') + std::string(cells - full, '.') + "]";
}

}  // namespace Tui
}  // namespace Stat

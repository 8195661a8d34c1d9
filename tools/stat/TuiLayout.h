// The interactive view's screen as text, without a terminal: which tables
// show and in what order, which columns fit a width, and the lines of the
// list and of one table's detail. TuiScreen.cpp draws these lines.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Model.h"

namespace Stat {
namespace Tui {

enum class SortKey { State, Name, Rate, Fill, Allocation };
// "state", "name", "rate", "fill", "allocation".
const char* sortName(SortKey key);
// The key after `key`, back to State after Allocation.
SortKey nextSort(SortKey key);

// Whether a table name passes the filter: empty passes all; a pattern with
// a wildcard (* ? [) is a glob whose * crosses /; other text is a prefix.
bool nameMatches(const std::string& filter, const std::string& name);

// Indices into sample.tables of the tables that pass `filter`, by `key`:
// state worst first; rate, fill and allocation highest first, unknown last;
// name order within ties.
std::vector<std::size_t> visibleTables(const Sample& sample, SortKey key, const std::string& filter);

// A line of the screen and how to draw it.
enum class Tone { Plain, Header, Stale, Bad };
struct Line {
  std::string text;  // printable, at most the width in columns
  Tone tone = Tone::Plain;
};

// Tables by state, problems, sample time and duration, clients known.
Line summaryLine(const Sample& sample, bool paused, std::size_t width);

// One line per problem, the collection's first, worst first.
std::vector<Line> problemLines(const Sample& sample, std::size_t width);

// The columns of the table list for a width: indices into tableHeader() in
// display order and their widths. Name, state and heartbeat always stay;
// the others are dropped by priority as the width shrinks, and the name
// is narrowed before a column is dropped.
struct Columns {
  std::vector<std::size_t> shown;
  std::vector<std::size_t> widths;  // parallel to shown
  std::size_t width = 0;            // of the screen: lines are cut to it
};
Columns fitColumns(const Sample& sample, const std::vector<std::size_t>& tables, std::size_t width);

Line headerLine(const Columns& columns);
Line tableLine(const Table& table, const Columns& columns);

// One table in full: writer, queues with fill bars, regions with
// occupancy bars, clients and problems.
std::vector<Line> detailLines(const Table& table, std::size_t width);

// "[#####.....]" of `cells` cells for a ratio 0..1.
std::string bar(double ratio, std::size_t cells);

// The keys, one per line.
std::vector<Line> helpLines(std::size_t width);

}  // namespace Tui
}  // namespace Stat

// The interactive view's frames: what a terminal of a given size shows.
#include <fmt/format.h>

#include <algorithm>

#include "Render.h"
#include "TuiView.h"

namespace Stat {
namespace Tui {

namespace {

// Screen lines that are not table rows: the summary, the header and the
// status line at the bottom.
constexpr std::size_t kFixedLines = 3;

}  // namespace

Frame View::frame(std::size_t rows, std::size_t columns) {
  Frame frame;
  if (rows == 0 || columns == 0) {
    return frame;
  }
  frame.lines.push_back(summaryLine(sample_, paused_, columns));
  if (mode_ == Mode::Help) {
    for (Line& line : helpLines(columns)) {
      frame.lines.push_back(std::move(line));
    }
  } else if (mode_ == Mode::Detail) {
    detailFrame(frame, rows, columns);
  } else {
    listFrame(frame, rows, columns);
  }
  frame.lines.resize(std::min(frame.lines.size(), rows));
  return frame;
}

void View::listFrame(Frame& frame, std::size_t rows, std::size_t columns) {
  const std::vector<std::size_t> tables = shown();
  const std::size_t room = rows > kFixedLines ? rows - kFixedLines : 0;
  // Problems take at most a third of the room: the rows say which tables
  // they are about, and the detail says the rest.
  std::vector<Line> problems = problemLines(sample_, columns);
  const std::size_t cap = room / 3;
  if (problems.size() > cap) {
    const std::size_t more = problems.size() - (cap > 0 ? cap - 1 : 0);
    problems.resize(cap > 0 ? cap - 1 : 0);
    if (cap > 0) {
      problems.push_back(Line{
          ellipsize(fmt::format("... {} more problems (Enter on a table for its own)", more), columns), Tone::Plain});
    }
  }
  frame.lines.insert(frame.lines.end(), problems.begin(), problems.end());
  const Columns layout = fitColumns(sample_, tables, columns);
  frame.lines.push_back(headerLine(layout));
  page_ = std::max<std::size_t>(room - problems.size(), 1);
  // The selection follows its table; where it is gone, its place.
  const auto found = std::find_if(tables.begin(), tables.end(), [this](std::size_t index) {
    return sample_.tables[index].identity.path == selectedPath_;
  });
  if (found != tables.end()) {
    selected_ = static_cast<std::size_t>(found - tables.begin());
  } else if (!tables.empty()) {
    selected_ = std::min(selected_, tables.size() - 1);
  }
  top_ = std::min(top_, selected_);
  if (selected_ >= top_ + page_) {
    top_ = selected_ + 1 - page_;
  }
  if (tables.empty()) {
    const std::string why = sample_.tables.empty() ? "(no tables under " + printable(sample_.root) + ")"
                                                   : "(no table matches " + printable(filter_) + ")";
    frame.lines.push_back(Line{ellipsize(why, columns), Tone::Plain});
  }
  for (std::size_t at = top_; at < tables.size() && at < top_ + page_; ++at) {
    if (at == selected_) {
      frame.selected = frame.lines.size();
    }
    frame.lines.push_back(tableLine(sample_.tables[tables[at]], layout));
  }
  frame.lines.resize(std::min(frame.lines.size(), rows - 1));
  while (frame.lines.size() < rows - 1) {
    frame.lines.push_back(Line{});
  }
  frame.lines.push_back(statusLine(tables.size(), columns));
}

void View::detailFrame(Frame& frame, std::size_t rows, std::size_t columns) {
  const auto found = std::find_if(sample_.tables.begin(), sample_.tables.end(),
                                  [this](const Table& table) { return table.identity.path == selectedPath_; });
  std::vector<Line> lines;
  if (found == sample_.tables.end()) {
    lines.push_back(Line{ellipsize(printable(selectedPath_) + " is no longer in the collection", columns), Tone::Bad});
  } else {
    lines = detailLines(*found, columns);
  }
  const std::size_t room = rows > 2 ? rows - 2 : 0;
  page_ = std::max<std::size_t>(room, 1);
  detailTop_ = std::min(detailTop_, lines.size() > room ? lines.size() - room : 0);
  for (std::size_t at = detailTop_; at < lines.size() && at < detailTop_ + room; ++at) {
    frame.lines.push_back(lines[at]);
  }
  while (frame.lines.size() + 1 < rows) {
    frame.lines.push_back(Line{});
  }
  frame.lines.push_back(Line{ellipsize("Esc back  Up/Down scroll  p pause  ? keys  q quit", columns), Tone::Header});
}

Line View::statusLine(std::size_t shown, std::size_t columns) const {
  if (mode_ == Mode::Filter) {
    return Line{ellipsize("filter: " + printable(filter_) + "_  (Enter keeps it, Esc cancels)", columns), Tone::Header};
  }
  std::string text = fmt::format("sort: {}", sortName(sort_));
  if (!filter_.empty()) {
    text += "  filter: " + printable(filter_);
  }
  text += fmt::format("  {} of {} tables  every {:g} s", shown, sample_.tables.size(), interval_);
  text += paused_ ? "  PAUSED (p resumes)" : "";
  text += "  ? keys  q quit";
  return Line{ellipsize(text, columns), Tone::Header};
}

}  // namespace Tui
}  // namespace Stat

// The default view: one aligned line per table, like ps or df.
//
//   TABLE         STATE  PID   BEAT  RESTARTS  SHADOWS  SEQUENCE  RATE/S  Q  FILL  SWITCH  ALLOC  FULLEST
//   md/eu/quotes  ok     4711  0.1s         0        2    123456    1000  1   37%     12s    14%  #3 64B 72%
//
// "-" marks a figure that was not read or needs two samples; "?" a count
// the /proc walk could not see (not root). PID is the host pid; "1*" is a
// writer's pid in a PID namespace out of sight, judged by its heartbeat
// (a line under the table says so).
#include <fmt/format.h>
#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <cwchar>
#include <vector>

#include "Health.h"
#include "Render.h"

namespace Stat {

namespace {

constexpr const char* kNone = "-";

// Columns a text takes on a terminal: a wide character (CJK, most emoji)
// two, a combining or zero-width one none. The text went through
// printable(), so it is well-formed UTF-8 without control characters. The
// C.UTF-8 locale answers, made current for this thread only while the object
// lives, so that the program's own locale is left alone; without it, every
// character counts one column.
class DisplayWidth {
 public:
  DisplayWidth() : locale_(::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr))) {
    if (locale_ != static_cast<locale_t>(nullptr)) {
      saved_ = ::uselocale(locale_);
    }
  }
  ~DisplayWidth() {
    if (locale_ != static_cast<locale_t>(nullptr)) {
      ::uselocale(saved_);
      ::freelocale(locale_);
    }
  }
  DisplayWidth(const DisplayWidth&) = delete;
  DisplayWidth& operator=(const DisplayWidth&) = delete;

  std::size_t operator()(const std::string& text) const {
    std::size_t width = 0;
    std::mbstate_t state{};
    for (std::size_t at = 0; at < text.size();) {
      wchar_t wide = 0;
      const std::size_t length = std::mbrtowc(&wide, text.data() + at, text.size() - at, &state);
      if (locale_ == static_cast<locale_t>(nullptr) || length == 0 || length > text.size() - at) {
        // No locale, or not a character of it: a column per lead byte.
        width += (static_cast<unsigned char>(text[at]) & 0xC0U) != 0x80U ? 1 : 0;
        state = std::mbstate_t{};
        ++at;
        continue;
      }
      const int columns = ::wcwidth(wide);
      width += columns < 0 ? 1 : static_cast<std::size_t>(columns);
      at += length;
    }
    return width;
  }

 private:
  locale_t locale_;
  locale_t saved_ = static_cast<locale_t>(nullptr);
};

std::string age(const std::optional<double>& seconds) {
  if (!seconds) {
    return kNone;
  }
  if (*seconds < 100) {
    return fmt::format("{:.1f}s", *seconds);
  }
  return duration(*seconds);
}

}  // namespace

std::string utcTime(double seconds, const char* format) {
  const auto whole = static_cast<std::time_t>(seconds);
  struct tm utc {};
  ::gmtime_r(&whole, &utc);
  char text[32] = {};
  std::strftime(text, sizeof text, format, &utc);
  return text;
}

// Tenths under 10 s ("0.2s"), then whole seconds as "59s", "3m05s",
// "2h01m", "3d04h".
std::string duration(double seconds) {
  if (seconds < 9.95) {
    return fmt::format("{:.1f}s", std::max(0.0, seconds));
  }
  const auto whole = static_cast<unsigned long long>(std::llround(std::max(0.0, seconds)));
  if (whole < 60) {
    return fmt::format("{}s", whole);
  }
  if (whole < 3600) {
    return fmt::format("{}m{:02}s", whole / 60, whole % 60);
  }
  if (whole < 86400) {
    return fmt::format("{}h{:02}m", whole / 3600, whole % 3600 / 60);
  }
  return fmt::format("{}d{:02}h", whole / 86400, whole % 86400 / 3600);
}

namespace {

// The PID cell: the host pid; a pid only the writer's own namespace knows
// is marked, and explained under the table.
constexpr const char* kOwnPidMark = "*";

std::string pidCell(const Writer& writer) {
  if (!writer.known) {
    return kNone;
  }
  if (writer.liveness == Liveness::Heartbeat) {
    return std::to_string(writer.pid) + kOwnPidMark;
  }
  const std::optional<std::uint32_t> pid = hostPid(writer);
  return pid ? std::to_string(*pid) : kNone;
}

std::string percent(double ratio) { return fmt::format("{:.0f}%", std::floor(ratio * 100)); }

}  // namespace

const std::vector<std::string>& tableHeader() {
  static const std::vector<std::string> kHeader = {"TABLE",   "STATE",    "PID",    "BEAT", "RESTARTS",
                                                   "SHADOWS", "SEQUENCE", "RATE/S", "Q",    "FILL",
                                                   "SWITCH",  "ALLOC",    "FULLEST"};
  return kHeader;
}

std::vector<std::string> tableCells(const Table& table) {
  const Writer& writer = table.writer;
  const Queues& queues = table.queues;
  const Allocator& allocator = table.allocator;
  std::vector<std::string> cells;
  cells.push_back(printable(table.identity.name));
  cells.push_back(stateName(table.state));
  cells.push_back(pidCell(writer));
  cells.push_back(writer.known ? age(writer.heartbeatAgeSeconds) : kNone);
  cells.push_back(writer.known ? std::to_string(writer.restarts) : kNone);
  cells.push_back(table.clients.known ? std::to_string(table.clients.shadows.size()) : "?");
  cells.push_back(queues.known ? std::to_string(queues.sequence) : kNone);
  cells.push_back(queues.ratePerSecond ? fmt::format("{:.0f}", *queues.ratePerSecond) : kNone);
  cells.push_back(queues.known ? std::to_string(queues.active) : kNone);
  cells.push_back(queues.known ? percent(queues.fillRatio) : kNone);
  cells.push_back(queues.secondsToSwitch ? duration(*queues.secondsToSwitch) : kNone);
  cells.push_back(allocator.known ? percent(allocator.occupancyRatio()) : kNone);
  cells.push_back(allocator.fullest ? fmt::format("#{} {}B {}", allocator.fullest->id, allocator.fullest->entrySize,
                                                  percent(allocator.fullest->occupancyRatio()))
                                    : kNone);
  return cells;
}

namespace {

// Printable ASCII takes a column a byte: no locale needed (the interactive
// view measures every cell of every frame).
bool ascii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0x80U) == 0; });
}

}  // namespace

std::size_t displayWidth(const std::string& text) { return ascii(text) ? text.size() : DisplayWidth()(text); }

std::string ellipsize(const std::string& text, std::size_t columns) {
  if (ascii(text) && text.size() <= columns) {
    return text;
  }
  const DisplayWidth width;
  if (width(text) <= columns) {
    return text;
  }
  if (columns == 0) {
    return "";
  }
  static const std::string kEllipsis = "\u2026";  // one column
  std::string kept;
  std::size_t used = 0;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t next = at + 1;
    while (next < text.size() && (static_cast<unsigned char>(text[next]) & 0xC0U) == 0x80U) {
      ++next;
    }
    const std::size_t step = width(text.substr(at, next - at));
    if (used + step + 1 > columns) {
      break;
    }
    kept.append(text, at, next - at);
    used += step;
    at = next;
  }
  return kept + kEllipsis;
}

std::optional<std::uint32_t> hostPid(const Writer& writer) {
  if (writer.hostPid != 0) {
    return writer.hostPid;
  }
  if (writer.pidNamespace == 0 && writer.liveness == Liveness::Process) {
    return writer.pid;
  }
  return std::nullopt;
}

std::string renderText(const Sample& sample) {
  const std::string trouble = sampleTrouble(sample);
  if (!trouble.empty()) {
    return printable(trouble) + "\n";
  }
  const std::vector<std::string>& kHeader = tableHeader();
  // Name, state and the fullest region are left-aligned; figures right.
  auto leftAligned = [&kHeader](std::size_t column) { return column <= 1 || column + 1 == kHeader.size(); };
  std::vector<std::vector<std::string>> rows;
  rows.push_back(kHeader);
  for (const Table& table : sample.tables) {
    rows.push_back(tableCells(table));
  }
  const DisplayWidth columns;
  std::vector<std::size_t> widths(kHeader.size(), 0);
  for (const auto& cells : rows) {
    for (std::size_t i = 0; i < cells.size(); ++i) {
      widths[i] = std::max(widths[i], columns(cells[i]));
    }
  }
  std::string out;
  for (const auto& cells : rows) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      const std::string pad(widths[i] - columns(cells[i]), ' ');
      if (i != 0) {
        line += "  ";
      }
      line += leftAligned(i) ? cells[i] + pad : pad + cells[i];
    }
    while (!line.empty() && line.back() == ' ') {
      line.pop_back();
    }
    out += line;
    out += '\n';
  }
  if (sample.tables.empty()) {
    out += "(no tables under " + printable(sample.root) + ")\n";
  }
  if (std::any_of(sample.tables.begin(), sample.tables.end(), [](const Table& table) {
        return table.writer.known && table.writer.liveness == Liveness::Heartbeat;
      })) {
    out += std::string(kOwnPidMark) +
           " pid in the writer's own PID namespace, which cannot be seen from here: alive judged by heartbeat only\n";
  }
  bool first = true;
  const std::string note = clientsNote(sample);
  if (!note.empty()) {
    out += '\n' + note + '\n';
    first = false;
  }
  auto problemLine = [&out, &first](const Problem& problem, const std::string& where) {
    if (first) {
      out += '\n';
      first = false;
    }
    out += fmt::format("{:<8}  {}{}\n", severityName(problem.severity), where, printable(problem.text));
  };
  for (const Problem& problem : sample.problems) {
    problemLine(problem, "");
  }
  for (const Table& table : sample.tables) {
    for (const Problem& problem : table.problems) {
      problemLine(problem, printable(table.identity.name) + ": ");
    }
  }
  return out;
}

}  // namespace Stat

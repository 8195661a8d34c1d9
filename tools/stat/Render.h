// The renderers: one per output format, each over the same Sample.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Collect.h"
#include "Model.h"

namespace Stat {

// The aligned table: a header line, one line per table, then the problems
// (if any) after a blank line. Every text from a file is shown through
// printable().
std::string renderText(const Sample& sample);

// The aligned table's header and one table's cells, in the same order.
const std::vector<std::string>& tableHeader();
std::vector<std::string> tableCells(const Table& table);

// Columns a printable() text takes on a terminal (a wide character two, a
// combining one none).
std::size_t displayWidth(const std::string& text);
// `text` (printable) in at most `columns` columns: when longer, cut at a
// character and ended with an ellipsis.
std::string ellipsize(const std::string& text, std::size_t columns);

// One JSON document on one line, with a line end (NDJSON-ready). Keys are
// stable and in snake_case; times are seconds as numbers; figures that could
// not be read are null. Text is UTF-8 with every non-ASCII character
// escaped; bytes that are not UTF-8 become U+FFFD.
std::string renderJson(const Sample& sample);
// The "schema" field of every --json document.
constexpr int kJsonSchemaVersion = 1;

// Tenths under 10 s ("0.2s"), then whole seconds as "59s", "3m05s",
// "2h01m" or "3d04h".
std::string duration(double seconds);

// `seconds` since the epoch as UTC in the strftime `format` (at most 31
// characters of text).
std::string utcTime(double seconds, const char* format);

// The Prometheus text exposition format (version 0.0.4).
std::string renderPrometheus(const Sample& sample);

// A monitoring-plugin verdict: the text (first line "HERON <STATUS> -
// summary | perfdata", then one line per problem) and the exit status
// (0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN).
struct Verdict {
  int status = 3;
  std::string text;
};
Verdict renderCheck(const Sample& sample, const Thresholds& thresholds);

// The writer's pid as a signal from here needs it (the ember's own pid when
// the writer runs in our PID namespace); none when its process was not found
// in the namespace the ember names.
std::optional<std::uint32_t> hostPid(const Writer& writer);

// Text from files made safe for a terminal: control characters (C0, DEL,
// C1) and bytes that are not UTF-8 are shown as \xNN, a backslash as \\.
std::string printable(const std::string& text);

// `text` as valid UTF-8: every byte that is not part of a well-formed
// sequence becomes U+FFFD.
std::string validUtf8(const std::string& text);

}  // namespace Stat

// One table in full, for the interactive view's detail screen, and the
// screen of keys.
#include <fmt/format.h>

#include <cmath>
#include <cstdio>

#include "Render.h"
#include "TuiLayout.h"

namespace Stat {
namespace Tui {

namespace {

constexpr std::size_t kBarCells = 16;
constexpr std::size_t kQueueBarCells = 10;  // room for position and switch at 80 columns

std::string seenWord(Seen seen) {
  switch (seen) {
    case Seen::Yes:
      return "yes";
    case Seen::No:
      return "no";
    case Seen::Unknown:
      break;
  }
  return "unknown";
}

std::string pids(const std::vector<int>& list) {
  if (list.empty()) {
    return "none";
  }
  std::string text;
  for (int pid : list) {
    text += (text.empty() ? "" : " ") + std::to_string(pid);
  }
  return text;
}

std::string percent(double ratio) { return fmt::format("{:3.0f}%", std::floor(ratio * 100)); }

void writerLines(const Writer& writer, std::vector<std::string>& out) {
  if (!writer.known) {
    out.push_back("writer    none (no ember)");
    return;
  }
  const std::optional<std::uint32_t> host = hostPid(writer);
  const std::string heartbeat = writer.heartbeatAgeSeconds ? duration(*writer.heartbeatAgeSeconds) + " ago" : "-";
  out.push_back(fmt::format("writer    pid {}  heartbeat {}  restarts {}  alive {} (by its {})",
                            host ? std::to_string(*host) : "-", heartbeat, writer.restarts, seenWord(writer.alive),
                            livenessName(writer.liveness)));
  out.push_back(fmt::format("          namespace pid {}{}  maps the table {}", writer.pid,
                            writer.pidNamespace != 0 ? fmt::format(" (pid ns {})", writer.pidNamespace) : "",
                            seenWord(writer.mapsTable)));
}

void queueLines(const Queues& queues, std::vector<std::string>& out) {
  if (!queues.known) {
    out.push_back("queues    not read");
    return;
  }
  out.push_back(fmt::format("queues    sequence {}  rate {}  version {}", queues.sequence,
                            queues.ratePerSecond ? fmt::format("{:.0f}/s", *queues.ratePerSecond) : "-",
                            queues.tableVersion));
  for (unsigned q = 1; q <= 2; ++q) {
    const QueueTable& table = queues.tables[q - 1];
    const bool active = q == queues.active;
    const double fill = table.capacity == 0 ? 0.0 : static_cast<double>(table.position) / table.capacity;
    std::string line = fmt::format("  queue {} {} {}  position {}/{}  epoch {}", q, bar(fill, kQueueBarCells),
                                   percent(fill), table.position, table.capacity, table.epoch);
    if (active) {
      line += "  active, switch " + (queues.secondsToSwitch ? duration(*queues.secondsToSwitch) : std::string("-"));
    }
    out.push_back(line);
  }
}

void regionLines(const Allocator& allocator, std::vector<std::string>& out) {
  if (!allocator.known) {
    out.push_back("regions   allocator not read");
    return;
  }
  auto rate = [](const std::optional<double>& perSecond) {
    return perSecond ? fmt::format(" ({:.1f}/s)", *perSecond) : std::string();
  };
  out.push_back(fmt::format("regions   {} of {} bytes used", percent(allocator.occupancyRatio()), allocator.bytes));
  out.push_back(fmt::format("          allocations {}{}  releases {}{}", allocator.allocations,
                            rate(allocator.allocationsPerSecond), allocator.releases,
                            rate(allocator.releasesPerSecond)));
  for (const Region& region : allocator.regions) {
    out.push_back(fmt::format("  #{:<3} {:>6} B  {} {}  {}/{} used{}", region.id, region.entrySize,
                              bar(region.occupancyRatio(), kBarCells), percent(region.occupancyRatio()), region.used,
                              region.units, region.consistent ? "" : "  " + printable(region.inconsistency)));
  }
}

}  // namespace

std::vector<Line> detailLines(const Table& table, std::size_t width) {
  std::vector<std::string> text;
  const Identity& identity = table.identity;
  text.push_back(fmt::format("{}  {}", printable(identity.name), stateName(table.state)));
  text.push_back(fmt::format("path      {}", printable(identity.path)));
  if (identity.ownerKnown) {
    text.push_back(fmt::format("owner     {} (type {})  host {}  creator pid {}", printable(identity.typeName),
                               identity.type, printable(identity.host), identity.creatorPid));
  }
  writerLines(table.writer, text);
  queueLines(table.queues, text);
  regionLines(table.allocator, text);
  text.push_back(table.clients.known ? fmt::format("clients   writers {}  shadows {}", pids(table.clients.writers),
                                                   pids(table.clients.shadows))
                                     : "clients   unknown (the processes' maps cannot all be read)");
  for (const Problem& problem : table.problems) {
    text.push_back(fmt::format("{:<8}  {}", severityName(problem.severity), printable(problem.text)));
  }
  std::vector<Line> lines;
  lines.reserve(text.size());
  for (std::string& line : text) {
    lines.push_back(Line{ellipsize(line, width), Tone::Plain});
  }
  lines[0].tone = table.state == State::Ok ? Tone::Header : (table.state == State::Stale ? Tone::Stale : Tone::Bad);
  return lines;
}

std::vector<Line> helpLines(std::size_t width) {
  static const char* const kKeys[] = {
      "q            quit",
      "s            sort by state, name, rate, fill, allocation (in turn)",
      "/            filter by a name glob (* crosses /; plain text: a prefix)",
      "Up Down      select a table",
      "PgUp PgDn    a page up or down",
      "Home End     the first or last table",
      "Enter        the selected table's detail",
      "Esc          back to the list",
      "p            pause or resume sampling",
      "?            this screen",
  };
  std::vector<Line> lines{Line{ellipsize("Keys", width), Tone::Header}};
  for (const char* key : kKeys) {
    lines.push_back(Line{ellipsize(key, width), Tone::Plain});
  }
  return lines;
}

}  // namespace Tui
}  // namespace Stat

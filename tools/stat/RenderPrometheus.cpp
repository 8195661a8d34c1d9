// --prometheus and /metrics: the text exposition format, version 0.0.4.
// Counters are raw (Prometheus computes rates); a figure that could not be
// read is left out rather than reported as 0.
#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Render.h"

namespace Stat {

namespace {

// A label value: valid UTF-8 with \\, \" and \n escaped as the format says;
// other control characters become the literal text \xNN, so that none
// reaches a terminal that shows the exposition.
std::string labelValue(const std::string& text) {
  const std::string valid = validUtf8(text);
  std::string out;
  out.reserve(valid.size());
  for (char c : valid) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else if (byte < 0x20 || byte == 0x7F) {
      fmt::format_to(std::back_inserter(out), "\\\\x{:02x}", byte);
    } else {
      out += c;
    }
  }
  return out;
}

class Exposition {
 public:
  // Starts a metric family.
  void family(const char* name, const char* type, const char* help) {
    name_ = name;
    fmt::format_to(std::back_inserter(text_), "# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
  }
  // One sample of the current family; `labels` are (name, raw value) pairs.
  void add(const std::vector<std::pair<const char*, std::string>>& labels, double value) {
    text_ += name_;
    if (!labels.empty()) {
      text_ += '{';
      for (std::size_t i = 0; i < labels.size(); ++i) {
        fmt::format_to(std::back_inserter(text_), "{}{}=\"{}\"", i == 0 ? "" : ",", labels[i].first,
                       labelValue(labels[i].second));
      }
      text_ += '}';
    }
    fmt::format_to(std::back_inserter(text_), " {}\n", value);
  }
  std::string& text() { return text_; }

 private:
  std::string text_;
  const char* name_ = "";
};

using Labels = std::vector<std::pair<const char*, std::string>>;

#ifdef HERON_STAT_VERSION
constexpr const char* kVersion = HERON_STAT_VERSION;
#else
constexpr const char* kVersion = "unknown";
#endif

// Calls `body` for each table with its `table` label.
void eachTable(const Sample& sample, const std::function<void(const Table&, const Labels&)>& body) {
  for (const Table& table : sample.tables) {
    body(table, Labels{{"table", table.identity.name}});
  }
}

Labels with(Labels labels, const char* name, std::string value) {
  labels.emplace_back(name, std::move(value));
  return labels;
}

void renderStates(Exposition& out, const Sample& sample) {
  out.family("heron_table_state", "gauge", "1 for the state the table is in (broken, dead, stale, ok), else 0.");
  eachTable(sample, [&out](const Table& table, const Labels& labels) {
    for (State state : {State::Broken, State::Dead, State::Stale, State::Ok}) {
      out.add(with(labels, "state", stateName(state)), table.state == state ? 1 : 0);
    }
  });
}

using Figure = std::optional<double>;

// A family with at most one sample a table: `figure` gives the table's, or
// none to leave the table out.
void perTable(Exposition& out, const Sample& sample, const char* name, const char* type, const char* help,
              const std::function<Figure(const Table&)>& figure) {
  out.family(name, type, help);
  eachTable(sample, [&out, &figure](const Table& table, const Labels& labels) {
    if (const Figure value = figure(table)) {
      out.add(labels, *value);
    }
  });
}

// The writer is up when it runs and maps the table. A writer out of sight
// (another container's namespace) is up while its heartbeat is fresh: the
// beat is the only evidence there is.
bool writerUp(const Table& table) {
  const Writer& writer = table.writer;
  return writer.known &&
         (writer.liveness == Liveness::Heartbeat ? table.state != State::Stale && table.state != State::Dead
                                                 : writer.alive == Seen::Yes && writer.mapsTable != Seen::No);
}

// The writer and the clients. An archive kept without a writer has no
// writer series at all: it is meant to have none, so neither "up" nor
// "down" applies.
void renderWriters(Exposition& out, const Sample& sample) {
  perTable(out, sample, "heron_writer_up", "gauge",
           "1 when the table's writer runs and maps the table (out of sight: beats), else 0.",
           [](const Table& table) { return table.keptWithoutWriter() ? Figure() : Figure(writerUp(table) ? 1 : 0); });
  perTable(out, sample, "heron_writer_heartbeat_age_seconds", "gauge", "Seconds since the writer's last heartbeat.",
           [](const Table& table) { return table.writer.known ? table.writer.heartbeatAgeSeconds : Figure(); });
  perTable(out, sample, "heron_writer_restarts_total", "counter", "Restarts of the table's writer.",
           [](const Table& table) { return table.writer.known ? Figure(table.writer.restarts) : Figure(); });
  perTable(out, sample, "heron_writer_start_time_seconds", "gauge",
           "When the current writer started, in seconds since the epoch.", [](const Table& table) {
             const bool started = table.writer.known && table.writer.startedSeconds > 0 && !table.keptWithoutWriter();
             return started ? Figure(table.writer.startedSeconds) : Figure();
           });
  perTable(out, sample, "heron_table_shadows", "gauge",
           "Read-only processes attached to the table (left out when unknown).", [](const Table& table) {
             return table.clients.known ? Figure(static_cast<double>(table.clients.shadows.size())) : Figure();
           });
}

// A family with one sample for each queue table, labelled 1 and 2.
void perQueueTable(Exposition& out, const Sample& sample, const char* name, const char* help,
                   std::uint32_t QueueTable::*figure) {
  out.family(name, "gauge", help);
  eachTable(sample, [&out, figure](const Table& table, const Labels& labels) {
    for (unsigned i = 0; table.queues.known && i < 2; ++i) {
      out.add(with(labels, "queue", std::to_string(i + 1)), table.queues.tables[i].*figure);
    }
  });
}

// A figure of the queues, of tables whose queues could be read.
std::function<Figure(const Table&)> ofQueues(double (*figure)(const Queues&)) {
  return [figure](const Table& table) { return table.queues.known ? Figure(figure(table.queues)) : Figure(); };
}

void renderQueues(Exposition& out, const Sample& sample) {
  perTable(out, sample, "heron_queue_sequence_total", "counter", "Latest sequence the writer appended to the queue.",
           ofQueues([](const Queues& queues) { return static_cast<double>(queues.sequence); }));
  perTable(out, sample, "heron_queue_active", "gauge", "The queue table being appended to (1 or 2).",
           ofQueues([](const Queues& queues) { return static_cast<double>(queues.active); }));
  perQueueTable(out, sample, "heron_queue_capacity", "Notifications each queue table holds.", &QueueTable::capacity);
  perQueueTable(out, sample, "heron_queue_position", "Next position the writer appends at in each queue table.",
                &QueueTable::position);
  perTable(out, sample, "heron_queue_fill_ratio", "gauge",
           "Used positions over the capacity of the active queue table.",
           ofQueues([](const Queues& queues) { return queues.fillRatio; }));
  // Needs a rate, so two samples: left out of a single sample and while the
  // writer appends nothing.
  perTable(out, sample, "heron_queue_seconds_to_switch", "gauge",
           "Seconds until the active queue table is full at the current append rate.",
           [](const Table& table) { return table.queues.known ? table.queues.secondsToSwitch : Figure(); });
}

// A figure of the allocator, of tables whose allocator could be read.
std::function<Figure(const Table&)> ofAllocator(double (*figure)(const Allocator&)) {
  return [figure](const Table& table) { return table.allocator.known ? Figure(figure(table.allocator)) : Figure(); };
}

void renderAllocators(Exposition& out, const Sample& sample) {
  out.family("heron_allocator_bytes", "gauge", "Bytes of the table's regions, used and free.");
  eachTable(sample, [&out](const Table& table, const Labels& labels) {
    if (table.allocator.known) {
      out.add(with(labels, "state", "used"), static_cast<double>(table.allocator.usedBytes));
      out.add(with(labels, "state", "free"), static_cast<double>(table.allocator.freeBytes()));
    }
  });
  perTable(out, sample, "heron_allocator_occupancy_ratio", "gauge", "Used bytes over all bytes of the table's regions.",
           ofAllocator([](const Allocator& allocator) { return allocator.occupancyRatio(); }));
  perTable(out, sample, "heron_allocator_allocations_total", "counter", "Entries the writer allocated.",
           ofAllocator([](const Allocator& allocator) { return static_cast<double>(allocator.allocations); }));
  perTable(out, sample, "heron_allocator_releases_total", "counter", "Entries the writer released.",
           ofAllocator([](const Allocator& allocator) { return static_cast<double>(allocator.releases); }));
  perTable(out, sample, "heron_allocator_regions", "gauge", "Region files of the table.",
           ofAllocator([](const Allocator& allocator) { return static_cast<double>(allocator.regions.size()); }));
}

// The regions of one entry size: how many, their units, and the fullest.
struct SizeClass {
  std::uint32_t regions = 0;
  std::uint64_t units = 0;
  std::uint64_t used = 0;
  double fullestRatio = 0;
};

std::map<std::uint32_t, SizeClass> sizeClasses(const Allocator& allocator) {
  std::map<std::uint32_t, SizeClass> classes;
  // Regions of an allocator that could not be read whole count for nothing.
  if (!allocator.known) {
    return classes;
  }
  for (const Region& region : allocator.regions) {
    SizeClass& size = classes[region.entrySize];
    size.regions += 1;
    size.units += region.units;
    size.used += region.used;
    size.fullestRatio = std::max(size.fullestRatio, region.occupancyRatio());
  }
  return classes;
}

// A writer that replaces regions climbs through ids up to 4095, so series
// per id would pile up in Prometheus; the entry sizes of a table are few and
// fixed. Series per id only when asked for.
void renderRegions(Exposition& out, const Sample& sample) {
  out.family("heron_regions", "gauge", "Regions of the table with that entry size.");
  eachTable(sample, [&out](const Table& table, const Labels& labels) {
    for (const auto& [size, figures] : sizeClasses(table.allocator)) {
      out.add(with(labels, "entry_size", std::to_string(size)), figures.regions);
    }
  });
  out.family("heron_region_units", "gauge", "Entries of the table's regions with that entry size, used and free.");
  eachTable(sample, [&out](const Table& table, const Labels& labels) {
    for (const auto& [size, figures] : sizeClasses(table.allocator)) {
      const Labels sized = with(labels, "entry_size", std::to_string(size));
      out.add(with(sized, "state", "used"), static_cast<double>(figures.used));
      out.add(with(sized, "state", "free"), static_cast<double>(figures.units - figures.used));
    }
  });
  if (sample.perRegionSeries) {
    out.family("heron_region_occupancy_ratio", "gauge", "Used units over all units of one region.");
    eachTable(sample, [&out](const Table& table, const Labels& labels) {
      for (std::size_t i = 0; table.allocator.known && i < table.allocator.regions.size(); ++i) {
        const Region& region = table.allocator.regions[i];
        const Labels sized = with(labels, "entry_size", std::to_string(region.entrySize));
        out.add(with(sized, "region", std::to_string(region.id)), region.occupancyRatio());
      }
    });
    return;
  }
  out.family("heron_region_occupancy_ratio", "gauge",
             "Used units over all units of the fullest region with that entry size.");
  eachTable(sample, [&out](const Table& table, const Labels& labels) {
    for (const auto& [size, figures] : sizeClasses(table.allocator)) {
      out.add(with(labels, "entry_size", std::to_string(size)), figures.fullestRatio);
    }
  });
}

void renderCollection(Exposition& out, const Sample& sample) {
  out.family("heron_stat_tables", "gauge", "Tables in this sample.");
  out.add({}, static_cast<double>(sample.tables.size()));
  out.family("heron_stat_sample_duration_seconds", "gauge", "Seconds this sample took to read.");
  out.add({}, sample.durationSeconds);
  out.family("heron_stat_root_ok", "gauge", "1 when the collection root exists and could be listed, else 0.");
  out.add({}, sample.rootOk ? 1 : 0);
  out.family("heron_stat_clients_known", "gauge",
             "1 when every process's memory maps could be read (clients and writers confirmed), else 0.");
  out.add({}, sample.clientsKnown ? 1 : 0);
  out.family("heron_stat_build_info", "gauge", "Always 1; the version of heron-stat as a label.");
  out.add({{"version", kVersion}}, 1);
}

}  // namespace

std::string renderPrometheus(const Sample& sample) {
  Exposition out;
  renderStates(out, sample);
  renderWriters(out, sample);
  renderQueues(out, sample);
  renderAllocators(out, sample);
  renderRegions(out, sample);
  renderCollection(out, sample);
  return std::move(out.text());
}

}  // namespace Stat

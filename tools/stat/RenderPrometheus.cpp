// --prometheus and /metrics: the text exposition format, version 0.0.4.
// Counters are raw (Prometheus computes rates); a figure that could not be
// read is left out rather than reported as 0.
#include <fmt/format.h>

#include <functional>
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

}  // namespace

std::string renderPrometheus(const Sample& sample) {
  Exposition out;
  const std::vector<Table>& tables = sample.tables;
  auto each = [&tables](const std::function<void(const Table&, const Labels&)>& body) {
    for (const Table& table : tables) {
      body(table, Labels{{"table", table.identity.name}});
    }
  };
  // A table that is meant to have a writer: every one but an archive kept
  // without one.
  auto hasWriter = [](const Table& table) { return !table.keptWithoutWriter(); };

  out.family("heron_table_state", "gauge", "1 for the state the table is in (broken, dead, stale, ok), else 0.");
  each([&out](const Table& table, const Labels& labels) {
    for (State state : {State::Broken, State::Dead, State::Stale, State::Ok}) {
      Labels withState = labels;
      withState.emplace_back("state", stateName(state));
      out.add(withState, table.state == state ? 1 : 0);
    }
  });
  out.family("heron_writer_up", "gauge", "1 when the table's writer runs and maps the table, else 0.");
  each([&](const Table& table, const Labels& labels) {
    if (hasWriter(table)) {
      const bool up = table.writer.known && table.writer.alive == Seen::Yes && table.writer.mapsTable != Seen::No;
      out.add(labels, up ? 1 : 0);
    }
  });
  out.family("heron_writer_heartbeat_age_seconds", "gauge", "Seconds since the writer's last heartbeat.");
  each([&out](const Table& table, const Labels& labels) {
    if (table.writer.known && table.writer.heartbeatAgeSeconds) {
      out.add(labels, *table.writer.heartbeatAgeSeconds);
    }
  });
  out.family("heron_writer_restarts_total", "counter", "Restarts of the table's writer.");
  each([&out](const Table& table, const Labels& labels) {
    if (table.writer.known) {
      out.add(labels, table.writer.restarts);
    }
  });
  out.family("heron_table_shadows", "gauge", "Read-only processes attached to the table (left out when unknown).");
  each([&out](const Table& table, const Labels& labels) {
    if (table.clients.known) {
      out.add(labels, static_cast<double>(table.clients.shadows.size()));
    }
  });
  out.family("heron_queue_sequence_total", "counter", "Latest sequence the writer appended to the queue.");
  each([&out](const Table& table, const Labels& labels) {
    if (table.queues.known) {
      out.add(labels, static_cast<double>(table.queues.sequence));
    }
  });
  out.family("heron_queue_active", "gauge", "The queue table being appended to (1 or 2).");
  each([&out](const Table& table, const Labels& labels) {
    if (table.queues.known) {
      out.add(labels, table.queues.active);
    }
  });
  out.family("heron_queue_capacity", "gauge", "Notifications each queue table holds.");
  each([&out](const Table& table, const Labels& labels) {
    for (unsigned i = 0; table.queues.known && i < 2; ++i) {
      Labels withQueue = labels;
      withQueue.emplace_back("queue", std::to_string(i + 1));
      out.add(withQueue, table.queues.tables[i].capacity);
    }
  });
  out.family("heron_queue_position", "gauge", "Next position the writer appends at in each queue table.");
  each([&out](const Table& table, const Labels& labels) {
    for (unsigned i = 0; table.queues.known && i < 2; ++i) {
      Labels withQueue = labels;
      withQueue.emplace_back("queue", std::to_string(i + 1));
      out.add(withQueue, table.queues.tables[i].position);
    }
  });
  out.family("heron_allocator_bytes", "gauge", "Bytes of the table's regions, used and free.");
  each([&out](const Table& table, const Labels& labels) {
    if (table.allocator.known) {
      Labels used = labels;
      used.emplace_back("state", "used");
      out.add(used, static_cast<double>(table.allocator.usedBytes));
      Labels free = labels;
      free.emplace_back("state", "free");
      out.add(free, static_cast<double>(table.allocator.freeBytes()));
    }
  });
  out.family("heron_allocator_occupancy_ratio", "gauge", "Used bytes over all bytes of the table's regions.");
  each([&out](const Table& table, const Labels& labels) {
    if (table.allocator.known) {
      out.add(labels, table.allocator.occupancyRatio());
    }
  });
  out.family("heron_allocator_allocations_total", "counter", "Entries the writer allocated.");
  each([&out](const Table& table, const Labels& labels) {
    if (table.allocator.known) {
      out.add(labels, static_cast<double>(table.allocator.allocations));
    }
  });
  out.family("heron_allocator_releases_total", "counter", "Entries the writer released.");
  each([&out](const Table& table, const Labels& labels) {
    if (table.allocator.known) {
      out.add(labels, static_cast<double>(table.allocator.releases));
    }
  });
  out.family("heron_allocator_regions", "gauge", "Region files of the table.");
  each([&out](const Table& table, const Labels& labels) {
    if (table.allocator.known) {
      out.add(labels, static_cast<double>(table.allocator.regions.size()));
    }
  });
  out.family("heron_region_occupancy_ratio", "gauge", "Used units over all units of one region.");
  each([&out](const Table& table, const Labels& labels) {
    for (const Region& region : table.allocator.regions) {
      Labels withRegion = labels;
      withRegion.emplace_back("region", std::to_string(region.id));
      out.add(withRegion, region.occupancyRatio());
    }
  });
  out.family("heron_stat_tables", "gauge", "Tables in this sample.");
  out.add({}, static_cast<double>(tables.size()));
  out.family("heron_stat_sample_duration_seconds", "gauge", "Seconds this sample took to read.");
  out.add({}, sample.durationSeconds);
  return std::move(out.text());
}

}  // namespace Stat

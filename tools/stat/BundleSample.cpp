// A sample back from heron-stat's own JSON: the live sample a bundle's
// manifest holds (laid over what the copied files say) and a recorded
// sample (the whole of it). Only documents this program wrote are expected,
// but any bytes are met with defaults or a refusal, never a crash.
#include <algorithm>
#include <optional>
#include <unordered_map>

#include "Bundle.h"
#include "Render.h"

namespace Stat {

namespace {

using ParsedJson = nlohmann::json;

double number(const ParsedJson& object, const char* key, double fallback) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number() ? found->get<double>() : fallback;
}

std::optional<double> optionalNumber(const ParsedJson& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number() ? std::optional<double>(found->get<double>()) : std::nullopt;
}

std::string text(const ParsedJson& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

Seen seen(const ParsedJson& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_boolean()) {
    return Seen::Unknown;
  }
  return found->get<bool>() ? Seen::Yes : Seen::No;
}

std::vector<int> pids(const ParsedJson& object, const char* key) {
  std::vector<int> out;
  const auto found = object.find(key);
  if (found != object.end() && found->is_array()) {
    for (const ParsedJson& pid : *found) {
      if (pid.is_number_integer()) {
        out.push_back(pid.get<int>());
      }
    }
  }
  return out;
}

const ParsedJson& member(const ParsedJson& object, const char* key) {
  static const ParsedJson kNull;
  const auto found = object.find(key);
  return found != object.end() && found->is_object() ? *found : kNull;
}

void overlayWriter(const ParsedJson& live, Writer& writer) {
  if (!live.is_object()) {
    return;
  }
  writer.hostPid = static_cast<std::uint32_t>(number(live, "pid", 0));
  writer.pidNamespace = static_cast<std::uint64_t>(number(live, "pid_namespace", 0));
  writer.liveness =
      text(live, "liveness") == livenessName(Liveness::Heartbeat) ? Liveness::Heartbeat : Liveness::Process;
  writer.heartbeatAgeSeconds = optionalNumber(live, "heartbeat_age_seconds");
  writer.monotonicHeartbeat = text(live, "heartbeat_clock") == "monotonic";
  writer.alive = seen(live, "alive");
  writer.mapsTable = seen(live, "maps_table");
}

void overlayTable(const ParsedJson& live, Table& table) {
  table.identity.path = text(live, "path");
  overlayWriter(member(live, "writer"), table.writer);
  const ParsedJson& clients = member(live, "clients");
  table.clients.known = clients.is_object() && clients.value("known", false);
  table.clients.writers = pids(clients, "writers");
  table.clients.shadows = pids(clients, "shadows");
  const ParsedJson& queues = member(live, "queues");
  if (queues.is_object()) {
    table.queues.ratePerSecond = optionalNumber(queues, "rate_per_second");
    table.queues.secondsToSwitch = optionalNumber(queues, "seconds_to_switch");
  }
  const ParsedJson& allocator = member(live, "allocator");
  if (allocator.is_object()) {
    table.allocator.allocationsPerSecond = optionalNumber(allocator, "allocations_per_second");
    table.allocator.releasesPerSecond = optionalNumber(allocator, "releases_per_second");
  }
}

State stateOf(const std::string& name) {
  for (State state : {State::Ok, State::Stale, State::Dead, State::Broken}) {
    if (name == stateName(state)) {
      return state;
    }
  }
  return State::Broken;
}

std::vector<Problem> problemsOf(const ParsedJson& object) {
  std::vector<Problem> out;
  const auto found = object.find("problems");
  if (found != object.end() && found->is_array()) {
    for (const ParsedJson& entry : *found) {
      if (entry.is_object()) {
        const bool critical = text(entry, "severity") == severityName(Severity::Critical);
        out.push_back({critical ? Severity::Critical : Severity::Warning, text(entry, "text")});
      }
    }
  }
  return out;
}

void ownerOf(const ParsedJson& owner, Identity& id) {
  id.ownerKnown = owner.is_object();
  if (id.ownerKnown) {
    id.type = static_cast<std::uint32_t>(number(owner, "type", 0));
    id.typeName = text(owner, "type_name");
    id.creatorPid = static_cast<std::uint32_t>(number(owner, "creator_pid", 0));
    id.createdSeconds = number(owner, "created", 0);
    id.host = text(owner, "host");
  }
}

void writerOf(const ParsedJson& live, Writer& writer) {
  writer.known = live.is_object();
  if (!writer.known) {
    return;
  }
  overlayWriter(live, writer);
  writer.pid = static_cast<std::uint32_t>(number(live, "namespace_pid", 0));
  const ParsedJson& ember = member(live, "ember");
  writer.emberPid = static_cast<std::uint16_t>(ember.is_object() ? number(ember, "pid", 0) : 0);
  writer.instance = static_cast<std::uint16_t>(ember.is_object() ? number(ember, "instance", 0) : 0);
  writer.restarts = static_cast<std::uint32_t>(number(live, "restarts", 0));
  writer.startedSeconds = number(live, "started", 0);
}

void queuesOf(const ParsedJson& live, Queues& queues) {
  queues.known = live.is_object();
  if (!queues.known) {
    return;
  }
  queues.active = number(live, "active", 1) == 2 ? 2 : 1;
  queues.sequence = static_cast<std::uint64_t>(number(live, "sequence", 0));
  queues.tableVersion = static_cast<std::uint32_t>(number(live, "table_version", 0));
  queues.fillRatio = number(live, "fill_ratio", 0);
  const auto sides = live.find("tables");
  for (std::size_t i = 0; sides != live.end() && sides->is_array() && i < 2 && i < sides->size(); ++i) {
    const ParsedJson& side = (*sides)[i];
    if (side.is_object()) {
      queues.tables[i] = {static_cast<std::uint32_t>(number(side, "capacity", 0)),
                          static_cast<std::uint32_t>(number(side, "position", 0)),
                          static_cast<std::uint64_t>(number(side, "epoch", 0))};
    }
  }
}

Region regionOf(const ParsedJson& row) {
  Region region;
  region.id = static_cast<std::uint32_t>(number(row, "id", 0));
  region.entrySize = static_cast<std::uint32_t>(number(row, "entry_size", 0));
  region.units = static_cast<std::uint32_t>(number(row, "units", 0));
  region.used = static_cast<std::uint32_t>(number(row, "used", 0));
  region.freePages = static_cast<std::uint32_t>(number(row, "free_pages", 0));
  region.consistent = row.value("consistent", true);
  return region;
}

void allocatorOf(const ParsedJson& live, Allocator& allocator) {
  allocator.known = live.is_object();
  if (!allocator.known) {
    return;
  }
  allocator.bytes = static_cast<std::uint64_t>(number(live, "bytes", 0));
  allocator.usedBytes = static_cast<std::uint64_t>(number(live, "used_bytes", 0));
  allocator.freePages = static_cast<std::uint64_t>(number(live, "free_pages", 0));
  allocator.allocations = static_cast<std::uint64_t>(number(live, "allocations", 0));
  allocator.releases = static_cast<std::uint64_t>(number(live, "releases", 0));
  const ParsedJson& fullest = member(live, "fullest_region");
  if (fullest.is_object()) {
    allocator.fullest = regionOf(fullest);
  }
  const auto rows = live.find("region_list");
  if (rows != live.end() && rows->is_array()) {
    for (const ParsedJson& row : *rows) {
      if (row.is_object()) {
        allocator.regions.push_back(regionOf(row));
      }
    }
  }
}

Table tableOf(const ParsedJson& live) {
  Table table;
  table.identity.name = text(live, "name");
  ownerOf(member(live, "owner"), table.identity);
  writerOf(member(live, "writer"), table.writer);
  queuesOf(member(live, "queues"), table.queues);
  allocatorOf(member(live, "allocator"), table.allocator);
  overlayTable(live, table);
  table.state = stateOf(text(live, "state"));
  table.problems = problemsOf(live);
  return table;
}

}  // namespace

bool overlayLiveSample(const ParsedJson& live, const std::string& copiedRoot, Sample& copied, std::string& error) {
  const auto tables = live.find("tables");
  if (!live.is_object() || tables == live.end() || !tables->is_array()) {
    error = "the sample has no table list";
    return false;
  }
  copied.root = text(live, "root");
  copied.timeSeconds = number(live, "time", 0);
  copied.intervalSeconds = number(live, "interval_seconds", 0);
  copied.durationSeconds = number(live, "sample_duration_seconds", 0);
  copied.clientsKnown = live.value("clients_known", false);
  copied.clientsWalked = copied.clientsKnown;
  // About the collection as sampled (an EXPR that matched nothing).
  copied.problems = problemsOf(live);
  std::unordered_map<std::string, const ParsedJson*> byName;
  for (const ParsedJson& table : *tables) {
    if (table.is_object()) {
      byName.emplace(text(table, "name"), &table);
    }
  }
  for (Table& table : copied.tables) {
    for (std::string& line : table.fileErrors) {
      for (std::size_t at = copiedRoot.empty() ? std::string::npos : line.find(copiedRoot); at != std::string::npos;
           at = line.find(copiedRoot, at)) {
        line.replace(at, copiedRoot.size(), copied.root);
        at += copied.root.size();
      }
    }
    const auto found = byName.find(table.identity.name);
    if (found != byName.end()) {
      overlayTable(*found->second, table);
    } else {
      // Copied but not in the sample: nothing says who used it.
      table.identity.path = copied.root + "/" + table.identity.name;
      table.writer.alive = Seen::Unknown;
      table.writer.mapsTable = Seen::Unknown;
    }
  }
  return true;
}

bool sampleFromJson(const std::string& text, const Thresholds& thresholds, Sample& sample, std::string& error) {
  const ParsedJson live = ParsedJson::parse(text, nullptr, false);
  if (!overlayLiveSample(live, std::string(), sample, error)) {
    return false;
  }
  sample.rootOk = live.value("root_ok", true);
  sample.rootError = live.contains("root_error") && live["root_error"].is_string()
                         ? live["root_error"].get<std::string>()
                         : std::string();
  sample.problems = problemsOf(live);
  for (const ParsedJson& entry : live["tables"]) {
    if (entry.is_object()) {
      sample.tables.push_back(tableOf(entry));
    }
  }
  // What assess() says again from the facts is not a reading problem; the
  // rest of a broken table's critical problems were.
  Sample again = sample;
  assess(again, thresholds);
  for (std::size_t i = 0; i < sample.tables.size(); ++i) {
    Table& table = sample.tables[i];
    for (const Problem& problem : table.state == State::Broken ? table.problems : std::vector<Problem>()) {
      const std::vector<Problem>& said = again.tables[i].problems;
      const bool regenerated =
          std::any_of(said.begin(), said.end(), [&](const Problem& p) { return p.text == problem.text; });
      if (problem.severity == Severity::Critical && !regenerated) {
        table.fileErrors.push_back(problem.text);
      }
    }
  }
  return true;
}

}  // namespace Stat

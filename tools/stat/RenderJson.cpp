// --json: one document per sample. The schema is documented with an example
// in heron-stat(1); keys keep their order so that a diff of two documents
// lines up.
#include <nlohmann/json.hpp>

#include "Render.h"

namespace Stat {

namespace {

using Json = nlohmann::ordered_json;

Json optional(const std::optional<double>& value) { return value ? Json(*value) : Json(nullptr); }

Json seen(Seen value) { return value == Seen::Unknown ? Json(nullptr) : Json(value == Seen::Yes); }

// Objects are filled key by key: a brace list would first build every
// key-value pair as an array of two and copy each value, which made most of
// the time of a large sample's document.
Json problems(const std::vector<Problem>& list) {
  Json out = Json::array();
  for (const Problem& problem : list) {
    Json& entry = out.emplace_back(Json::object());
    entry["severity"] = severityName(problem.severity);
    entry["text"] = problem.text;
  }
  return out;
}

Json region(const Region& row) {
  Json out = Json::object();
  out["id"] = row.id;
  out["entry_size"] = row.entrySize;
  out["units"] = row.units;
  out["used"] = row.used;
  out["free_pages"] = row.freePages;
  out["occupancy_ratio"] = row.occupancyRatio();
  out["consistent"] = row.consistent;
  return out;
}

Json owner(const Identity& id) {
  if (!id.ownerKnown) {
    return nullptr;
  }
  Json out = Json::object();
  out["type"] = id.type;
  out["type_name"] = id.typeName;
  out["creator_pid"] = id.creatorPid;
  out["created"] = id.createdSeconds;
  out["host"] = id.host;
  return out;
}

Json writer(const Writer& writer) {
  if (!writer.known) {
    return nullptr;
  }
  Json out = Json::object();
  const std::optional<std::uint32_t> pid = hostPid(writer);
  out["pid"] = pid ? Json(*pid) : Json(nullptr);
  out["namespace_pid"] = writer.pid;
  out["pid_namespace"] = writer.pidNamespace != 0 ? Json(writer.pidNamespace) : Json(nullptr);
  out["liveness"] = livenessName(writer.liveness);
  Json& ember = out["ember"] = Json::object();
  ember["pid"] = writer.emberPid;
  ember["instance"] = writer.instance;
  out["restarts"] = writer.restarts;
  out["started"] = writer.startedSeconds;
  out["heartbeat_age_seconds"] = optional(writer.heartbeatAgeSeconds);
  out["heartbeat_clock"] = writer.monotonicHeartbeat ? "monotonic" : "wall";
  out["alive"] = seen(writer.alive);
  out["maps_table"] = seen(writer.mapsTable);
  return out;
}

Json clients(const Clients& clients) {
  Json out = Json::object();
  out["known"] = clients.known;
  out["writers"] = clients.known ? Json(clients.writers) : Json(nullptr);
  out["shadows"] = clients.known ? Json(clients.shadows) : Json(nullptr);
  return out;
}

Json queues(const Queues& queues) {
  if (!queues.known) {
    return nullptr;
  }
  Json sides = Json::array();
  for (unsigned i = 0; i < 2; ++i) {
    Json& side = sides.emplace_back(Json::object());
    side["queue"] = i + 1;
    side["capacity"] = queues.tables[i].capacity;
    side["position"] = queues.tables[i].position;
    side["epoch"] = queues.tables[i].epoch;
  }
  Json out = Json::object();
  out["active"] = queues.active;
  out["sequence"] = queues.sequence;
  out["table_version"] = queues.tableVersion;
  out["tables"] = std::move(sides);
  out["fill_ratio"] = queues.fillRatio;
  out["rate_per_second"] = optional(queues.ratePerSecond);
  out["seconds_to_switch"] = optional(queues.secondsToSwitch);
  return out;
}

Json allocator(const Allocator& allocator) {
  if (!allocator.known) {
    return nullptr;
  }
  Json regions = Json::array();
  for (const Region& row : allocator.regions) {
    regions.push_back(region(row));
  }
  Json out = Json::object();
  out["regions"] = allocator.regions.size();
  out["bytes"] = allocator.bytes;
  out["used_bytes"] = allocator.usedBytes;
  out["free_bytes"] = allocator.freeBytes();
  out["free_pages"] = allocator.freePages;
  out["occupancy_ratio"] = allocator.occupancyRatio();
  out["allocations"] = allocator.allocations;
  out["releases"] = allocator.releases;
  out["allocations_per_second"] = optional(allocator.allocationsPerSecond);
  out["releases_per_second"] = optional(allocator.releasesPerSecond);
  out["fullest_region"] = allocator.fullest ? region(*allocator.fullest) : Json(nullptr);
  out["region_list"] = std::move(regions);
  return out;
}

Json table(const Table& table) {
  const Identity& id = table.identity;
  Json out = Json::object();
  out["name"] = id.name;
  out["path"] = id.path;
  out["state"] = stateName(table.state);
  out["owner"] = owner(id);
  out["writer"] = writer(table.writer);
  out["clients"] = clients(table.clients);
  out["queues"] = queues(table.queues);
  out["allocator"] = allocator(table.allocator);
  out["problems"] = problems(table.problems);
  return out;
}

}  // namespace

std::string renderJson(const Sample& sample) {
  Json out;
  // The document's version (docs/heron-stat.schema.json): raised when a key
  // changes meaning or goes; new keys keep it.
  out["schema"] = kJsonSchemaVersion;
  out["time"] = sample.timeSeconds;
  out["root"] = sample.root;
  out["interval_seconds"] = sample.intervalSeconds;
  out["sample_duration_seconds"] = sample.durationSeconds;
  out["root_ok"] = sample.rootOk;
  out["root_error"] = sample.rootOk ? Json(nullptr) : Json(sample.rootError);
  // False when the walk was skipped or could not see every process: the
  // tables' client lists are then null, never a confident "none".
  out["clients_known"] = sample.clientsKnown;
  Json tables = Json::array();
  tables.get_ref<Json::array_t&>().reserve(sample.tables.size());
  for (const Table& entry : sample.tables) {
    tables.push_back(table(entry));
  }
  out["tables"] = std::move(tables);
  out["problems"] = problems(sample.problems);
  std::string text = out.dump(-1, ' ', true, Json::error_handler_t::replace);
  text += '\n';
  return text;
}

}  // namespace Stat

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

Json problems(const std::vector<Problem>& list) {
  Json out = Json::array();
  for (const Problem& problem : list) {
    out.push_back(Json{{"severity", severityName(problem.severity)}, {"text", problem.text}});
  }
  return out;
}

Json region(const Region& row) {
  return Json{{"id", row.id},
              {"entry_size", row.entrySize},
              {"units", row.units},
              {"used", row.used},
              {"free_pages", row.freePages},
              {"occupancy_ratio", row.occupancyRatio()},
              {"consistent", row.consistent}};
}

Json table(const Table& table) {
  const Identity& id = table.identity;
  Json out;
  out["name"] = id.name;
  out["path"] = id.path;
  out["state"] = stateName(table.state);
  out["owner"] = id.ownerKnown ? Json{{"type", id.type},
                                      {"type_name", id.typeName},
                                      {"creator_pid", id.creatorPid},
                                      {"created", id.createdSeconds},
                                      {"host", id.host}}
                               : Json(nullptr);
  const Writer& writer = table.writer;
  out["writer"] = writer.known ? Json{{"pid", writer.pid},
                                      {"ember", {{"pid", writer.emberPid}, {"instance", writer.instance}}},
                                      {"restarts", writer.restarts},
                                      {"started", writer.startedSeconds},
                                      {"heartbeat_age_seconds", optional(writer.heartbeatAgeSeconds)},
                                      {"heartbeat_clock", writer.monotonicHeartbeat ? "monotonic" : "wall"},
                                      {"alive", seen(writer.alive)},
                                      {"maps_table", seen(writer.mapsTable)}}
                               : Json(nullptr);
  const Clients& clients = table.clients;
  out["clients"] = clients.known ? Json{{"known", true}, {"writers", clients.writers}, {"shadows", clients.shadows}}
                                 : Json{{"known", false}, {"writers", nullptr}, {"shadows", nullptr}};
  const Queues& queues = table.queues;
  if (queues.known) {
    Json sides = Json::array();
    for (unsigned i = 0; i < 2; ++i) {
      sides.push_back(Json{{"queue", i + 1},
                           {"capacity", queues.tables[i].capacity},
                           {"position", queues.tables[i].position},
                           {"epoch", queues.tables[i].epoch}});
    }
    out["queues"] = Json{{"active", queues.active},
                         {"sequence", queues.sequence},
                         {"table_version", queues.tableVersion},
                         {"tables", sides},
                         {"fill_ratio", queues.fillRatio},
                         {"rate_per_second", optional(queues.ratePerSecond)},
                         {"seconds_to_switch", optional(queues.secondsToSwitch)}};
  } else {
    out["queues"] = nullptr;
  }
  const Allocator& allocator = table.allocator;
  if (allocator.known) {
    Json regions = Json::array();
    for (const Region& row : allocator.regions) {
      regions.push_back(region(row));
    }
    out["allocator"] = Json{{"regions", allocator.regions.size()},
                            {"bytes", allocator.bytes},
                            {"used_bytes", allocator.usedBytes},
                            {"free_bytes", allocator.freeBytes()},
                            {"free_pages", allocator.freePages},
                            {"occupancy_ratio", allocator.occupancyRatio()},
                            {"allocations", allocator.allocations},
                            {"releases", allocator.releases},
                            {"allocations_per_second", optional(allocator.allocationsPerSecond)},
                            {"releases_per_second", optional(allocator.releasesPerSecond)},
                            {"fullest_region", allocator.fullest ? region(*allocator.fullest) : Json(nullptr)},
                            {"region_list", regions}};
  } else {
    out["allocator"] = nullptr;
  }
  out["problems"] = problems(table.problems);
  return out;
}

}  // namespace

std::string renderJson(const Sample& sample) {
  Json out;
  out["time"] = sample.timeSeconds;
  out["root"] = sample.root;
  out["interval_seconds"] = sample.intervalSeconds;
  out["sample_duration_seconds"] = sample.durationSeconds;
  out["clients_walked"] = sample.clientsWalked;
  Json tables = Json::array();
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

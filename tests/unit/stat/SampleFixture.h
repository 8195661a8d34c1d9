// Synthetic samples for the renderer tests: built by hand, no files read.
#pragma once

#include <string>

#include "Model.h"

namespace StatTest {

// A healthy table with a writer, two shadows, both queues and two regions.
inline Stat::Table healthyTable(const std::string& name) {
  Stat::Table table;
  table.identity.name = name;
  table.identity.path = "/dev/shm/heron/" + name;
  table.identity.ownerKnown = true;
  table.identity.type = 2;
  table.identity.typeName = "HeronTable";
  table.identity.creatorPid = 100;
  table.identity.createdSeconds = 1700000000.5;
  table.identity.host = "host1";
  table.writer.known = true;
  table.writer.pid = 4711;
  table.writer.emberPid = 4711;
  table.writer.instance = 2;
  table.writer.restarts = 2;
  table.writer.startedSeconds = 1700000100.25;
  table.writer.heartbeatAgeSeconds = 0.25;
  table.writer.monotonicHeartbeat = true;
  table.writer.alive = Stat::Seen::Yes;
  table.writer.mapsTable = Stat::Seen::Yes;
  table.clients.known = true;
  table.clients.writers = {4711};
  table.clients.shadows = {4712, 4713};
  table.queues.known = true;
  table.queues.active = 2;
  table.queues.tables[0] = {1024, 1024, 3};
  table.queues.tables[1] = {1024, 256, 4};
  table.queues.sequence = 123456;
  table.queues.tableVersion = 7;
  table.queues.fillRatio = 0.25;
  table.queues.ratePerSecond = 1000;
  table.queues.secondsToSwitch = 0.768;
  table.allocator.known = true;
  table.allocator.regions = {{1, 64, 100, 72, 1, true, ""}, {2, 256, 100, 10, 20, true, ""}};
  table.allocator.bytes = 100 * 64 + 100 * 256;
  table.allocator.usedBytes = 72 * 64 + 10 * 256;
  table.allocator.freePages = 21;
  table.allocator.allocations = 5000;
  table.allocator.releases = 4918;
  table.allocator.allocationsPerSecond = 50;
  table.allocator.releasesPerSecond = 49.5;
  table.allocator.fullest = table.allocator.regions[0];
  return table;
}

// A table whose files could not be read: nothing known but its name.
inline Stat::Table brokenTable(const std::string& name) {
  Stat::Table table;
  table.identity.name = name;
  table.identity.path = "/dev/shm/heron/" + name;
  table.fileErrors.push_back("/dev/shm/heron/" + name + "/owner: bad magic");
  return table;
}

inline Stat::Sample sampleOf(std::initializer_list<Stat::Table> tables) {
  Stat::Sample sample;
  sample.root = "/dev/shm/heron";
  sample.timeSeconds = 1700000200.5;
  sample.monotonicSeconds = 5000;
  sample.durationSeconds = 0.0125;
  sample.intervalSeconds = 1;
  sample.clientsWalked = true;
  sample.clientsKnown = true;
  sample.tables = tables;
  return sample;
}

// A sample whose root could not be listed: `why` is the whole reason.
inline Stat::Sample unusableRoot(const std::string& why) {
  Stat::Sample sample = sampleOf({});
  sample.rootOk = false;
  sample.rootError = why;
  return sample;
}

// A sample in which `expr` matched none of the `there` tables of the root.
inline Stat::Sample unmatched(const std::string& expr, std::size_t there) {
  Stat::Sample sample = sampleOf({});
  sample.expr = expr;
  sample.rootTables = there;
  return sample;
}

}  // namespace StatTest

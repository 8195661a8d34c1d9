// Who is alive: a writer's process found by its ember's pid (across PID
// namespaces), the clients the walk of every process's maps saw; how fast
// (rates from two samples); and the state each table is in once its facts
// are known.
#include "CollectLiveness.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <unordered_map>

#include "Collect.h"

namespace Stat {

namespace {

// True when the kernel still has a process with that pid (one we may not
// signal counts too).
bool pidExists(std::uint32_t pid) {
  if (pid == 0 || pid > 0x7FFFFFFFU) {
    return false;
  }
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// "writer 4711", or for a writer in another PID namespace "writer 1 (pid
// namespace 4026532001, pid 4711 here)": the ember's pid is the writer's own.
std::string writerName(const Writer& writer) {
  if (writer.liveness == Liveness::Process && (writer.hostPid == writer.pid || writer.pidNamespace == 0)) {
    return "writer " + std::to_string(writer.pid);
  }
  std::string text = fmt::format("writer {} (pid namespace {}", writer.pid, writer.pidNamespace);
  if (writer.hostPid != 0) {
    text += fmt::format(", pid {} here", writer.hostPid);
  }
  return text + ")";
}

// A writer in our own PID namespace (or one that predates the field): its
// ember pid is our pid too. A zombie (killed, not yet reaped) is no live
// writer; its status is read only where /proc may be read.
void judgeByPid(Writer& writer, bool readProc) {
  writer.hostPid = writer.pid;
  writer.alive = pidExists(writer.pid) ? Seen::Yes : Seen::No;
  Beacon::Proc::PidStatus status;
  if (writer.alive == Seen::Yes && readProc && Beacon::Proc::readPidStatus(static_cast<int>(writer.pid), status) &&
      status.exited()) {
    writer.alive = Seen::No;
  }
}

}  // namespace

// Every process's maps can be read only as root or with CAP_SYS_PTRACE.
bool seesEveryProcess() {
  if (::geteuid() == 0) {
    return true;
  }
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 7, "CapEff:") == 0) {
      const unsigned long long caps = std::strtoull(line.c_str() + 7, nullptr, 16);
      return ((caps >> 19) & 1U) != 0;  // CAP_SYS_PTRACE
    }
  }
  return false;
}

void judgeWriter(Writer& writer, Beacon::Proc::PidNamespaceIndex& namespaces, const std::vector<int>* readWrite,
                 bool readProc) {
  writer.liveness = Liveness::Process;
  writer.hostPid = 0;
  writer.alive = Seen::Unknown;
  writer.mapsTable = Seen::Unknown;
  const std::uint64_t ns = writer.pidNamespace;
  if (ns == 0 || ns == namespaces.own()) {
    judgeByPid(writer, readProc);
  } else if (const int found = namespaces.find(ns, writer.pid)) {
    writer.hostPid = static_cast<std::uint32_t>(found);
    writer.alive = Seen::Yes;
  } else if (namespaces.complete() &&
             (!namespaces.processesIn(ns).empty() || namespaces.own() == Beacon::Proc::kInitialPidNamespace)) {
    // Its namespace is in sight without it, or gone: from the initial
    // namespace every process of the machine is in sight.
    writer.alive = Seen::No;
  } else {
    // Out of sight (we run in another container, or may not read every
    // process's namespace): the heartbeat is the only evidence.
    writer.liveness = Liveness::Heartbeat;
    return;
  }
  if (writer.alive == Seen::Yes && readWrite != nullptr) {
    const bool maps =
        std::find(readWrite->begin(), readWrite->end(), static_cast<int>(writer.hostPid)) != readWrite->end();
    writer.mapsTable = maps ? Seen::Yes : Seen::No;
  }
}

void judgeWriters(std::vector<Table>& tables, const SharedMem::TableMappings& mapped,
                  Beacon::Proc::PidNamespaceIndex& namespaces, bool readProc) {
  for (Table& table : tables) {
    if (!table.writer.known) {
      continue;
    }
    std::vector<int> readWrite;
    if (table.clients.known) {
      auto found = mapped.find(table.identity.path);
      if (found != mapped.end()) {
        for (const SharedMem::TableMapping& mapping : found->second) {
          if (mapping.readWrite) {
            readWrite.push_back(mapping.pid);
          }
        }
      }
    }
    judgeWriter(table.writer, namespaces, table.clients.known ? &readWrite : nullptr, readProc);
  }
}

void fillClients(std::vector<Table>& tables, const SharedMem::TableMappings& mapped, bool complete) {
  const int self = static_cast<int>(::getpid());
  for (Table& table : tables) {
    table.clients.known = complete;
    auto found = mapped.find(table.identity.path);
    if (found == mapped.end()) {
      continue;
    }
    SharedMem::TableClients clients = SharedMem::tableClients(found->second, self);
    table.clients.writers = std::move(clients.writers);
    table.clients.shadows = std::move(clients.shadows);
    std::sort(table.clients.shadows.begin(), table.clients.shadows.end());
  }
}

void deriveRates(const Sample& before, Sample& after) {
  after.intervalSeconds = after.monotonicSeconds - before.monotonicSeconds;
  std::unordered_map<std::string, const Table*> byPath;
  byPath.reserve(before.tables.size());
  for (const Table& table : before.tables) {
    byPath.emplace(table.identity.path, &table);
  }
  for (Table& table : after.tables) {
    auto found = byPath.find(table.identity.path);
    if (found == byPath.end()) {
      continue;
    }
    const Table* earlier = found->second;
    // A rate over a writer's restart would mix two writers' counters.
    const Writer& was = earlier->writer;
    const Writer& is = table.writer;
    if (was.known != is.known || was.emberPid != is.emberPid || was.instance != is.instance) {
      continue;
    }
    const double elapsed = table.readMonotonicSeconds - earlier->readMonotonicSeconds;
    if (elapsed <= 0) {
      continue;
    }
    if (table.queues.known && earlier->queues.known && table.queues.sequence >= earlier->queues.sequence) {
      Queues& queues = table.queues;
      queues.ratePerSecond = static_cast<double>(queues.sequence - earlier->queues.sequence) / elapsed;
      const QueueTable& active = queues.tables[queues.active - 1];
      if (*queues.ratePerSecond > 0) {
        const std::uint32_t left = active.capacity > active.position ? active.capacity - active.position : 0;
        queues.secondsToSwitch = left / *queues.ratePerSecond;
      }
    }
    const Allocator& then = earlier->allocator;
    Allocator& now = table.allocator;
    if (now.known && then.known && now.allocations >= then.allocations && now.releases >= then.releases) {
      now.allocationsPerSecond = static_cast<double>(now.allocations - then.allocations) / elapsed;
      now.releasesPerSecond = static_cast<double>(now.releases - then.releases) / elapsed;
    }
  }
}

void assess(Sample& sample, const Thresholds& thresholds) {
  for (Table& table : sample.tables) {
    table.problems.clear();
    table.state = State::Ok;
    auto raise = [&table](State state) { table.state = std::max(table.state, state); };
    for (const std::string& error : table.fileErrors) {
      table.problems.push_back({Severity::Critical, error});
      raise(State::Broken);
    }
    const Writer& writer = table.writer;
    if (table.keptWithoutWriter()) {
      // Kept without a writer by design.
    } else if (!writer.known) {
      if (table.identity.ownerKnown) {
        table.problems.push_back({Severity::Critical, "no writer has started on this table (no ember)"});
        raise(State::Dead);
      }
    } else if (writer.alive == Seen::No) {
      table.problems.push_back({Severity::Critical, writerName(writer) + " is not running"});
      raise(State::Dead);
    } else if (writer.mapsTable == Seen::No) {
      table.problems.push_back({Severity::Critical, writerName(writer) + " no longer maps the table"});
      raise(State::Dead);
    } else if (writer.heartbeatAgeSeconds && *writer.heartbeatAgeSeconds > thresholds.staleSeconds) {
      std::string text = fmt::format("heartbeat {:.1f} s old (stale after {:g} s)", *writer.heartbeatAgeSeconds,
                                     thresholds.staleSeconds);
      if (writer.liveness == Liveness::Heartbeat) {
        text += "; " + writerName(writer) + " cannot be seen from here";
      }
      table.problems.push_back({Severity::Warning, text});
      raise(State::Stale);
    }
    if (table.allocator.known) {
      const double percent = table.allocator.occupancyRatio() * 100;
      if (thresholds.critAllocPercent > 0 && percent >= thresholds.critAllocPercent) {
        table.problems.push_back({Severity::Critical, fmt::format("allocator {:.0f}% full (critical at {:g}%)", percent,
                                                                  thresholds.critAllocPercent)});
      } else if (percent >= thresholds.warnAllocPercent) {
        table.problems.push_back({Severity::Warning, fmt::format("allocator {:.0f}% full (warning at {:g}%)", percent,
                                                                 thresholds.warnAllocPercent)});
      }
    }
    for (const Region& row : table.allocator.regions) {
      if (!row.inconsistency.empty()) {
        table.problems.push_back({Severity::Warning, fmt::format("region {} of {} is inconsistent: {}", row.id,
                                                                 table.identity.name, row.inconsistency)});
      }
    }
  }
}

const char* stateName(State state) {
  switch (state) {
    case State::Ok:
      return "ok";
    case State::Stale:
      return "stale";
    case State::Dead:
      return "dead";
    case State::Broken:
      return "broken";
  }
  return "broken";
}

const char* livenessName(Liveness liveness) { return liveness == Liveness::Heartbeat ? "heartbeat" : "process"; }

const char* severityName(Severity severity) { return severity == Severity::Critical ? "critical" : "warning"; }

}  // namespace Stat

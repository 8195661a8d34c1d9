// heron-sim write: become the writer of a table.
//
// Takes over the table's ember (a restart bumps its instance), maps the two
// queue files read-write, and then, at --rate notifications a second or
// flat out, allocates a region entry, fills its payload, appends a
// notification describing it, and releases old entries (tombstoning their
// slots). The queue writer switches tables when the active one is full;
// now and then the queue grows and regions are created and deleted. The
// ember is heartbeaten every 100 ms. Stops on SIGINT, SIGTERM, SIGHUP or
// after --duration seconds, and prints one summary line.
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>

#include "Beacon/Clock.h"
#include "Beacon/ProcPid.h"
#include "Beacon/StopSignals.h"
#include "Mem/RootPath.h"
#include "SharedMem/Ember.h"
#include "Sim.h"
#include "WriteTable.h"

namespace Sim {

namespace {

long long monotonicNs() { return static_cast<long long>(Beacon::monoNs()); }

// One writer per table: the previous one counts as alive while its pid runs
// and its last beat is younger than two seconds (it beats every 100 ms). The
// age comes from the monotonic beat when the writer stored one, so a step of
// the wall clock neither hides a live writer nor blocks a restart; a writer
// that predates that field is judged on the wall clock. A beat from the
// future (another boot's monotonic clock) is no sign of life.
bool writerAlive(const SharedMem::EmberHeader& ember) {
  constexpr std::uint64_t kAliveNs = 2000000000ULL;
  const auto pid = static_cast<pid_t>(ember.writerPid);
  // A writer in another PID namespace: its pid means nothing here, the beat
  // alone decides. EPERM: the pid runs, as another user.
  const bool ownNamespace = ember.pidNamespace == 0 || ember.pidNamespace == Beacon::Proc::readPidNamespace("self");
  if (ownNamespace && (pid <= 0 || pid == ::getpid() || (::kill(pid, 0) != 0 && errno != EPERM))) {
    return false;
  }
  const bool monotonic = ember.heartbeatMonoNs != 0;
  const std::uint64_t beat = monotonic ? ember.heartbeatMonoNs : ember.heartbeatNs;
  const std::uint64_t now = monotonic ? SharedMem::monoNs() : SharedMem::nowNs();
  return beat <= now && now - beat < kAliveNs;
}

// Takes the table over: it must exist and have no live writer. Prints the
// one line that says the writer is attached.
bool attach(const Mem::OrbRootPath& root, SharedMem::EmberWriter& ember, WriteTable& table) {
  struct stat st {};
  if (::stat(root.fullPath("owner").c_str(), &st) != 0) {
    std::cerr << "heron-sim write: no table at " << root << " (heron-sim create it first)\n";
    return false;
  }
  SharedMem::EmberHeader previous{};
  if (SharedMem::readEmber(root, previous) == SharedMem::LoadStatus::Ok && writerAlive(previous)) {
    std::cerr << "heron-sim write: " << root << " already has a writer (pid " << previous.writerPid << ")\n";
    return false;
  }
  std::string error;
  if (!ember.open(error) || !table.open(ember.id(), error)) {
    std::cerr << "heron-sim write: " << error << '\n';
    return false;
  }
  std::cout << "writer " << ::getpid() << " attached to " << root << std::endl;
  return true;
}

struct Appended {
  unsigned long long count = 0;
  bool failed = false;
};

// Appends at the settings' rate (or flat out), beating the heartbeat, until
// a stop signal, the end of the duration or a failed step.
Appended appendUntilStopped(const WriteSettings& settings, Beacon::StopSignals& stop, SharedMem::EmberWriter& ember,
                            WriteTable& table, long long started) {
  constexpr long long kHeartbeatNs = 100000000LL;
  constexpr long long kTickNs = 5000000LL;  // rate mode: catch up at most every 5 ms
  const unsigned long long duration = settings.seconds;
  const long long deadline = duration != 0 ? started + static_cast<long long>(duration) * 1000000000LL : 0;
  long long nextHeartbeat = started + kHeartbeatNs;
  Appended appended;
  std::string error;
  while (!appended.failed) {
    long long now = monotonicNs();
    if (deadline != 0 && now >= deadline) {
      break;
    }
    if (now >= nextHeartbeat) {
      ember.heartbeat();
      nextHeartbeat = now + kHeartbeatNs;
    }
    unsigned long long due = 4096;
    if (!settings.flatOut) {
      auto target = static_cast<unsigned long long>(static_cast<long double>(now - started) * settings.rate / 1e9L);
      due = target > appended.count ? target - appended.count : 0;
      if (due == 0) {
        long long wait = kTickNs;
        if (deadline != 0 && deadline - now < wait) {
          wait = deadline - now;
        }
        if (stop.waitNs(wait) != 0) {
          break;
        }
        continue;
      }
    }
    if (stop.waitNs(0) != 0) {
      break;
    }
    for (unsigned long long i = 0; i < due; ++i) {
      if (!table.step(error)) {
        std::cerr << "heron-sim write: " << error << '\n';
        appended.failed = true;
        break;
      }
      ++appended.count;
    }
  }
  return appended;
}

}  // namespace

int commandWrite(const std::string& name, const WriteSettings& settings) {
  // The stopping signals are blocked and read, so no handler and no global
  // flag are needed; sleeping is a wait for one of them.
  Beacon::StopSignals stop;
  Mem::OrbRootPath root(handler(), name, false);
  SharedMem::EmberWriter ember(handler(), root);
  WriteTable table(handler(), root, settings);
  if (!attach(root, ember, table)) {
    return 1;
  }
  const long long started = monotonicNs();
  const Appended appended = appendUntilStopped(settings, stop, ember, table, started);
  double seconds = static_cast<double>(monotonicNs() - started) / 1e9;
  struct timespec cpu {};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
  double cpuSeconds = static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) / 1e9;
  auto perSecond = [&appended](double span) {
    return static_cast<unsigned long long>(span > 0 ? static_cast<double>(appended.count) / span : 0);
  };
  // The rate per second of the writer's own CPU time leaves out the time
  // other processes took the CPU away.
  std::cout << "writer " << ::getpid() << " appended " << appended.count << " notifications in " << seconds << " s ("
            << perSecond(seconds) << "/s, " << perSecond(cpuSeconds) << "/s of cpu)"
            << (stop.stopped() != 0 ? std::string(", stopped by ") + ::strsignal(stop.stopped()) : "") << std::endl;
  table.close();
  return appended.failed ? 1 : 0;
}

}  // namespace Sim

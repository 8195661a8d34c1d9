// The `ember` file: 64 bytes of restart identity that the writer keeps
// mapped read-write and shared, and heartbeats. Shadows map it read-only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Beacon/Clock.h"
#include "Beacon/Debuggable.h"
#include "Beacon/Magic.h"
#include "Mem/RootPath.h"
#include "Mem/SharedMemWrapper.h"
#include "SharedMem/EmberId.h"
#include "SharedMem/LoadStatus.h"

namespace SharedMem {

struct alignas(8) EmberHeader {
  static constexpr unsigned long long kMagic = Beacon::Util::encodeMagic("HRNEMBER");
  static constexpr std::uint32_t kVersion = 1;

  std::uint64_t magic;
  std::uint32_t version;
  EmberId current;
  std::uint32_t writerPid;
  std::uint32_t restarts;
  std::uint64_t startedNs;
  std::uint64_t heartbeatNs;
  // CLOCK_MONOTONIC of the same beat. Ages are computed from it, so a step of
  // the wall clock never makes a live writer look stale; 0 from a writer that
  // predates the field.
  std::uint64_t heartbeatMonoNs;
  // The inode of the writer's /proc/self/ns/pid: the pids above are the
  // writer's own, which are not the host's when it runs in a container. 0
  // from a writer that predates the field.
  std::uint64_t pidNamespace;
  std::uint64_t reserved;
};

static_assert(sizeof(EmberHeader) == 64, "ember is 64 bytes");
static_assert(offsetof(EmberHeader, version) == 8, "ember layout");
static_assert(offsetof(EmberHeader, current) == 12, "ember layout");
static_assert(offsetof(EmberHeader, writerPid) == 16, "ember layout");
static_assert(offsetof(EmberHeader, restarts) == 20, "ember layout");
static_assert(offsetof(EmberHeader, startedNs) == 24, "ember layout");
static_assert(offsetof(EmberHeader, heartbeatNs) == 32, "ember layout");
static_assert(offsetof(EmberHeader, heartbeatMonoNs) == 40, "ember layout");
static_assert(offsetof(EmberHeader, pidNamespace) == 48, "ember layout");

// Reader: copies the header out of the file (pread, read-only).
LoadStatus readEmber(const Mem::RootPath& root, EmberHeader& out);

// Writer: creates the ember on first start, or takes it over on a restart
// (bumping instanceId and restarts), and keeps it mapped read-write.
class EmberWriter : public Beacon::Debuggable {
 public:
  EmberWriter(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root);
  bool open(std::string& error);
  EmberId id() const;
  void heartbeat();

 private:
  Mem::RootPath root_;
  Mem::Tracked<Mem::SharedMemWrapper> file_;
  EmberHeader* header_ = nullptr;
};

// The runtime's clocks (Beacon/Clock.h) under the names writers and readers
// of the ember know them: heartbeatNs is nowNs(), heartbeatMonoNs monoNs().
using Beacon::monoNs;
using Beacon::nowNs;

}  // namespace SharedMem

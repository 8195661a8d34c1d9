// The writer side of one table as heron-sim drives it: the queue writer and
// the region writer together, one notification per step.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"
#include "SharedMem/EmberId.h"

namespace Sim {

struct WriteSettings {
  unsigned long long rate = 1000;          // notifications a second (rate mode)
  bool flatOut = false;                    // as fast as it can instead of `rate`
  unsigned long long seconds = 0;          // stop after this long; 0 never
  unsigned long long growEvery = 50000;    // appends between queue growths; 0 never
  unsigned long long maxCapacity = 65536;  // the queue grows no further
  unsigned long long regionEvery = 20000;  // appends between region create/delete; 0 never
  unsigned long long liveEntries = 128;    // entries kept before the oldest is released
  unsigned long long payloadMax = 200;     // largest payload in bytes, at least 8
};

class WriteTable {
 public:
  WriteTable(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, const WriteSettings& settings);
  ~WriteTable();
  WriteTable(const WriteTable&) = delete;
  WriteTable& operator=(const WriteTable&) = delete;

  // Maps the queue files read-write and opens the allocator.
  bool open(SharedMem::EmberId ember, std::string& error);
  // One notification: allocate, fill, append, release the oldest when more
  // than liveEntries are held, and now and then grow or churn regions.
  bool step(std::string& error);
  // Releases what is still held (entries and mappings).
  void close();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Sim

// heron-sim: builds and drives live heron collections.
//
// The command line (CommandLine.h) checks every option and its range before
// a command runs, so the commands below receive settings that are already
// valid and report only failures of the system (status 1).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"
#include "SharedMem/SharedMemType.h"
#include "WriteTable.h"

namespace Sim {

// One region to create: `unitCount` units of `unitSize` bytes.
struct RegionSpec {
  std::uint32_t unitSize = 0;
  std::uint32_t unitCount = 0;
};

// The region list a table gets when none is given.
constexpr const char* kDefaultRegions = "64x256,256x128,4096x32";

// Parses "SIZExCOUNT[,SIZExCOUNT...]" (e.g. 64x256,4096x32); an empty text is
// an empty list. Unit sizes run from 1 to kMaxUnitSize, counts from 1 to the
// largest unit index, and a region holds at most kMaxRegionBytes. False with
// a one-line `error` naming the item otherwise.
constexpr std::uint32_t kMaxUnitSize = 1U << 24;
constexpr std::uint64_t kMaxRegionBytes = 1ULL << 32;
bool parseRegionList(const std::string& text, std::vector<RegionSpec>& out, std::string& error);
// kDefaultRegions, parsed.
std::vector<RegionSpec> defaultRegions();

struct CreateSettings {
  std::uint32_t type = SharedMem::Table;
  std::string typeName = "HeronTable";
  std::uint32_t capacity = 1024;  // notifications per queue file
  bool withRegions = true;        // false: the allocator file only
  std::vector<RegionSpec> regions = defaultRegions();
};

struct ShadowSettings {
  std::vector<std::string> names;
  bool readWrite = false;          // map as a writer does (nothing is written)
  unsigned long long seconds = 0;  // 0: until SIGTERM or SIGINT
};

struct DemoSettings {
  unsigned long long seconds = 0;  // 0: until Ctrl-C, SIGTERM or SIGHUP
  bool keep = false;
  unsigned long long rate = 200;  // each writer's notifications a second
};

Beacon::Platform::DebugHandler& handler();

// Each part of a table's creation; false with `error` set on failure.
bool createQueues(const Mem::RootPath& table, const CreateSettings& settings, std::string& error);
bool createAllocator(const Mem::RootPath& table, const CreateSettings& settings, std::string& error);

// Each command returns the process exit status.
int commandCreate(const std::string& name, const CreateSettings& settings);
int commandRemove(const std::string& name);
int commandWrite(const std::string& name, const WriteSettings& settings);
int commandShadow(const ShadowSettings& settings);
int commandDemo(const DemoSettings& settings);

}  // namespace Sim

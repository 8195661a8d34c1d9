// heron-sim: builds and drives live heron collections.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"

namespace Sim {

// Command-line options after the command and table name: "--key value" or
// "--flag" (value "1").
struct Options {
  std::map<std::string, std::string> values;
  std::vector<std::string> positional;

  bool has(const std::string& key) const { return values.count(key) != 0; }
  std::string get(const std::string& key, const std::string& fallback) const;
  // Parses an unsigned number; `ok` turns false on garbage.
  unsigned long long number(const std::string& key, unsigned long long fallback, bool& ok) const;
};

Beacon::Platform::DebugHandler& handler();

// Each part of a table's creation; false with `error` set on failure.
bool createQueues(const Mem::RootPath& table, const Options& options, std::string& error);
bool createAllocator(const Mem::RootPath& table, const Options& options, std::string& error);

// Each command returns the process exit status.
int commandCreate(const std::string& name, const Options& options);
int commandRemove(const std::string& name, const Options& options);
int commandWrite(const std::string& name, const Options& options);
int commandShadow(const std::string& name, const Options& options);
int commandDemo(const Options& options);

}  // namespace Sim

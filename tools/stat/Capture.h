// heron-stat --capture FILE [EXPR]: a bundle (Bundle.h) of the selected
// tables, copied consistently while their writers run, read-only toward
// them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Stat.h"

namespace Stat {

// A process that maps files of a table, as /proc shows it from here.
struct MappingProcess {
  int pid = 0;             // as seen from here
  int namespacePid = 0;    // innermost pid (NSpid), 0 when unknown
  std::string command;     // the command line, arguments joined by spaces
  std::string executable;  // the link /proc/PID/exe, "" when unreadable
  double startedSeconds = 0;
  std::vector<std::string> maps;  // its maps lines for the table's files
};

// Every process that maps a file under each of `tableDirs` (full paths),
// in the same order; our own process left out.
std::vector<std::vector<MappingProcess>> mappingProcesses(const std::vector<std::string>& tableDirs);

// Writes the bundle `options.capture`; returns the exit status (0, 1 when
// it could not be written or nothing matched, 2 for a refused path).
int capture(const Options& options);

}  // namespace Stat

// The heron front end: command line, table resolution and the table dump.
#pragma once

#include <ostream>
#include <string>
#include <unordered_set>

#include "Beacon/Platform.h"
#include "Heron/Heron.h"
#include "Mem/RootPath.h"

namespace Heron {

// The process-wide "HeronScanner" debug handler.
Beacon::Platform::DebugHandler& debugHandler();

}  // namespace Heron

// Prints one table (called by Heron::main once EXPR names exactly one).
int printTable(const std::string& outputFile, const char* tableName, bool who, bool stats, bool regions,
               const std::unordered_set<unsigned>& regionIds, bool detail, bool sortByOccupancy, bool printEmpty,
               bool queues, Heron::Style style);

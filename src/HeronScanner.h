// The heron front end: command line, table resolution and the table dump.
#pragma once

#include <ostream>
#include <string>
#include <unordered_set>

#include "Beacon/Export.h"
#include "Beacon/Platform.h"
#include "Mem/RootPath.h"

namespace Heron {

// Output style: 0 the ordinary text dump, 1 JSON (-j), 2 pretty-printed
// hierarchy (-p).
enum Style : int { Text = 0, Json = 1, Pretty = 2 };

// The whole utility; the result is the process exit status.
HERON_EXPORT int main(int argc, char** argv);

// Styled printing by root type. No root type is known yet: always writes
// "No knowledge of root type:<typeName>" to standard error and returns 1.
HERON_EXPORT int printHeron(const std::string& typeName, const Mem::RootPath& root, std::ostream* out, Style style);

// The process-wide "HeronScanner" debug handler.
Beacon::Platform::DebugHandler& debugHandler();

}  // namespace Heron

// Prints one table (called by Heron::main once EXPR names exactly one).
int printTable(const std::string& outputFile, const char* tableName, bool who, bool stats, bool regions,
               const std::unordered_set<unsigned>& regionIds, bool detail, bool sortByOccupancy, bool printEmpty,
               bool queues, Heron::Style style);

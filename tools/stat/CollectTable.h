// One table's files read into a sample's Table: the collectors' per-table
// step, apart from the walk that finds the tables and their processes.
#pragma once

#include <cstdint>

#include "Mem/TableFinder.h"
#include "Model.h"

namespace Stat {

class KeptReaders;  // CollectKept.h

// Nanoseconds as seconds.
double nsSeconds(std::uint64_t ns);

// Whether an owner file's type is one that samples list: a table or an
// archive (not a plain segment).
bool listedType(std::uint32_t type);

// Reads the files of the table at `table.identity.path` into `table`; false
// when the directory is not a table. `listing`: the table directory as the
// caller has just read it, or null. With `kept`, the readers are kept for
// the next sample (and reused when they can serve). An exception from a
// reader (out of memory, a remap that failed) makes this table broken with
// its reason instead of failing the whole sample.
bool readTable(Table& table, const Mem::TableFinder::Listing* listing, KeptReaders* kept);

}  // namespace Stat

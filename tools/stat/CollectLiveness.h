// The collectors' part that reads /proc: writers' liveness and the clients
// seen by the walk of every process's maps (CollectLiveness.cpp).
#pragma once

#include <vector>

#include "Beacon/ProcPid.h"
#include "Model.h"
#include "SharedMem/TableClients.h"

namespace Stat {

// Whether this process may read every process's maps (root or
// CAP_SYS_PTRACE).
bool seesEveryProcess();

// Every table's writer judged by judgeWriter(), with the pids the walk saw
// mapping the table read-write where it saw every process.
void judgeWriters(std::vector<Table>& tables, const SharedMem::TableMappings& mapped,
                  Beacon::Proc::PidNamespaceIndex& namespaces, bool readProc);

// Each table's writer and shadows as the walk saw them; our own process is
// no client. `complete`: the walk saw every process.
void fillClients(std::vector<Table>& tables, const SharedMem::TableMappings& mapped, bool complete);

}  // namespace Stat

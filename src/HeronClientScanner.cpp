// Placeholder until the client reports land.
#include "HeronClientScanner.h"

#include <iostream>

namespace Heron {

const char* const HeronClientScanner::heronFileTypes[2] = {"relay.1", "ember"};

HeronClientScanner::HeronClientScanner(std::ostream* out, const Mem::OrbRootPath& rootPath, const char* tableName,
                                       const std::string& procRoot)
    : Beacon::Debuggable("HeronScanner", false),
      out(out),
      rootPath(rootPath),
      tableName(tableName),
      procRoot(procRoot) {}

HeronClientScanner::~HeronClientScanner() = default;

int HeronClientScanner::doGetClientInfo(bool) const { return 1; }
int HeronClientScanner::doGetAllClientInfo() const { return 1; }
int HeronClientScanner::doGetTableInfo(int) const { return 1; }

}  // namespace Heron

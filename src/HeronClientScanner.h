// Which processes are attached to which tables, read from /proc: the
// scanner class is declared, as exported, in Heron/Heron.h; this header adds
// the mapping record its members take.
#pragma once

#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Beacon/DirNode.h"
#include "Heron/Heron.h"
#include "Mem/RootPath.h"
#include "model/Model.h"

namespace Heron {

// One mapping of one heron file by one process.
// A null C string is a programming error: rejected as the old library did.
inline std::string copyRequiredText(const char* text) {
  if (text == nullptr) {
    throw std::logic_error("basic_string::_S_construct null not valid");
  }
  return std::string(text);
}

struct MmapInfo {
  MmapInfo(int pid, std::string procName, std::string permissions, const char* heronFileType)
      : pid(pid),
        procName(std::move(procName)),
        permissions(std::move(permissions)),
        heronFileType(copyRequiredText(heronFileType)) {}

  // "pid|procName|permissions|heronFileType|"
  std::string toTraceString() const;

  int pid;
  std::string procName;
  std::string permissions;
  std::string heronFileType;
};

}  // namespace Heron

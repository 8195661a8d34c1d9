#include "Beacon/DirNode.h"

#include "Beacon/Trace.h"

namespace Beacon {

DirNode::DirNode(Platform::DebugHandler& handler, const std::string& path, const DirNode* parent)
    : handler_(handler), path_(parent != nullptr ? parent->path() + "/" + path : path), dir_(opendir(path_.c_str())) {
  if (dir_ == nullptr) {
    fmtrace(handler_, 5, __FILE__, __func__, __LINE__, "DirNode", "cannot open {}", path_);
  }
}

DirNode::~DirNode() {
  if (dir_ != nullptr) {
    closedir(dir_);
  }
}

const struct dirent* DirNode::readEntry() {
  if (dir_ == nullptr) {
    return nullptr;
  }
  return readdir(dir_);
}

}  // namespace Beacon

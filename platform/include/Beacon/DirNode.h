// Directory reader: owns an open DIR stream for its lifetime.
#pragma once

#include <dirent.h>

#include <string>

#include "Beacon/Platform.h"

namespace Beacon {

class DirNode {
 public:
  // Opens `path`; a parent node, when given, makes `path` relative to it.
  DirNode(Platform::DebugHandler& handler, const std::string& path, const DirNode* parent = nullptr);
  ~DirNode();
  DirNode(const DirNode&) = delete;
  DirNode& operator=(const DirNode&) = delete;

  bool isOpen() const { return dir_ != nullptr; }
  const std::string& path() const { return path_; }
  // The next raw entry ("." and ".." included), or nullptr at the end. The
  // entry stays valid until the next call.
  const struct dirent* readEntry();

 private:
  Platform::DebugHandler& handler_;
  std::string path_;
  DIR* dir_;
};

}  // namespace Beacon

// A fresh directory under /tmp for a test, removed with its contents.
#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <string>

namespace StatTest {

class TempDir {
 public:
  explicit TempDir(const std::string& stem) {
    std::string pattern = "/tmp/" + stem + ".XXXXXX";
    if (::mkdtemp(pattern.data()) != nullptr) {
      path_ = pattern;
    }
  }
  ~TempDir() {
    if (!path_.empty()) {
      std::system(("rm -rf '" + path_ + "'").c_str());
    }
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace StatTest

// A fresh directory for one test, removed with everything in it on
// destruction. `onShm` puts it on tmpfs (/dev/shm) when there is one, like
// real tables, else in /tmp.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace HeronTest {

class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "heron-test", bool onShm = false) {
    std::string shm = "/dev/shm/" + prefix + ".XXXXXX";
    std::string tmp = "/tmp/" + prefix + ".XXXXXX";
    const char* made = onShm ? ::mkdtemp(&shm[0]) : nullptr;
    if (made == nullptr) {
      made = ::mkdtemp(&tmp[0]);
    }
    path_ = made != nullptr ? made : "";
  }
  ~TempDir() {
    if (!path_.empty()) {
      const std::string command = "rm -rf '" + path_ + "'";
      const int ignored = std::system(command.c_str());
      (void)ignored;
    }
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // A table directory inside, made when missing.
  std::string table(const std::string& name) const {
    const std::string dir = path_ + "/" + name;
    ::mkdir(dir.c_str(), 0755);
    return dir;
  }

 private:
  std::string path_;
};

}  // namespace HeronTest

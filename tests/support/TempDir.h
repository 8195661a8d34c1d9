// A fresh directory for one test, removed with everything in it on
// destruction (symbolic links are removed, never followed). `onShm` puts it
// on tmpfs (/dev/shm) when there is one, like real tables, else in /tmp.
// `mode` replaces mkdtemp's private 0700, for directories that other users
// must enter. path() is canonical, so it is byte-equal to what the kernel and
// heron print; it is empty when no directory could be made.
#pragma once

#include <ftw.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace HeronTest {

class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "heron-test", bool onShm = false, mode_t mode = 0700) {
    std::string shm = "/dev/shm/" + prefix + ".XXXXXX";
    std::string tmp = "/tmp/" + prefix + ".XXXXXX";
    const char* made = onShm ? ::mkdtemp(&shm[0]) : nullptr;
    if (made == nullptr) {
      made = ::mkdtemp(&tmp[0]);
    }
    if (made == nullptr) {
      std::perror("mkdtemp");
      return;
    }
    char resolved[PATH_MAX];
    path_ = ::realpath(made, resolved) != nullptr ? resolved : made;
    if (mode != 0700 && ::chmod(path_.c_str(), mode) != 0) {
      std::perror(path_.c_str());
    }
  }
  ~TempDir() {
    if (!path_.empty()) {
      ::nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // A table directory inside, made when missing.
  std::string table(const std::string& name) const {
    const std::string dir = path_ + "/" + name;
    ::mkdir(dir.c_str(), 0755);
    return dir;
  }

 private:
  static int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

  std::string path_;
};

}  // namespace HeronTest

#include "support/Run.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace HeronTest {

RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& cwd,
              const std::string& argv0, int timeoutSeconds) {
  Child child(argv, env, cwd, argv0);
  return child.wait(timeoutSeconds);
}

RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env, const ChildOptions& options,
              int timeoutSeconds) {
  Child child(argv, env, options);
  return child.wait(timeoutSeconds);
}

std::string binary(const std::string& name) {
  const char* dir = std::getenv("HERON_BIN");
  return std::string(dir != nullptr && *dir != '\0' ? dir : "build/bin") + "/" + name;
}

std::string heronBin() { return binary("heron"); }
std::string simBin() { return binary("heron-sim"); }

std::string heronLib() {
  const char* dir = std::getenv("HERON_LIB");
  return std::string(dir != nullptr && *dir != '\0' ? dir : "build/lib") + "/libheron.so";
}

TempRoot::TempRoot() : dir_("heron-test") {
  if (dir_.path().empty()) {
    std::abort();
  }
}

std::vector<std::string> TempRoot::env() const { return {"HERON_ROOT=" + path()}; }

bool TempRoot::createAll(const std::vector<std::string>& names) const {
  for (const std::string& name : names) {
    if (!create(name)) {
      return false;
    }
  }
  return true;
}

bool TempRoot::create(const std::string& name, const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {simBin(), "create", name};
  argv.insert(argv.end(), args.begin(), args.end());
  RunResult result = run(argv, env());
  if (!result.exited() || result.status != 0) {
    std::fprintf(stderr, "heron-sim create %s failed (%s): %s\n", name.c_str(), result.describe().c_str(),
                 result.err.c_str());
    return false;
  }
  return true;
}

namespace {

// Copies `from` (following symbolic links) to a new file `to` with `mode`.
bool copyFile(const std::string& from, const std::string& to, mode_t mode, std::string& error) {
  std::ifstream in(from, std::ios::binary);
  if (!in) {
    error = "cannot read " + from;
    return false;
  }
  {
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    if (!out.flush()) {
      error = "cannot write " + to;
      return false;
    }
  }
  if (::chmod(to.c_str(), mode) != 0) {
    error = "chmod " + to + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

PublicHeronCopy::PublicHeronCopy() : dir_("heron-public", false, 0755) {
  if (dir_.path().empty()) {
    error_ = "no temporary directory";
    return;
  }
  for (const std::string& dir : {dir_.file("bin"), dir_.file("lib")}) {
    if (::mkdir(dir.c_str(), 0755) != 0) {
      error_ = dir + ": " + std::strerror(errno);
      return;
    }
  }
  if (copyFile(heronBin(), heron(), 0755, error_)) {
    copyFile(heronLib(), dir_.file("lib/libheron.so.0"), 0644, error_);
  }
}

std::vector<std::string> PublicHeronCopy::env() const { return {"LD_LIBRARY_PATH=" + dir_.file("lib")}; }

std::string golden(const std::string& name) {
  const char* source = std::getenv("HERON_SOURCE");
  const std::string path = std::string(source != nullptr && *source != '\0' ? source : ".") + "/tests/golden/" + name;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read golden file %s\n", path.c_str());
    return "";
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  return static_cast<bool>(out);
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace HeronTest

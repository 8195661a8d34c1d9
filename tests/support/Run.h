// Runs a program as a child process and captures everything it says: the
// one way tests run programs (see Child.h for one that stays up while the
// test talks to it).
//
// The child gets exactly the environment it is given (plus the sanitizer
// options of the test process, so that sanitized builds behave), standard
// input from /dev/null, and its standard output and standard error in two
// separate pipes. No shell is involved.
#pragma once

#include <string>
#include <vector>

#include "support/Child.h"
#include "support/TempDir.h"

namespace HeronTest {

// argv[0] is the program (a path, or a bare name looked up in PATH); it is
// also what the child sees as argv[0] unless `argv0` is given. A child still
// running after `timeoutSeconds` is killed and the result says so. `env`
// holds "NAME=value" entries. `cwd`, when not empty, is the child's working
// directory.
RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& cwd = "",
              const std::string& argv0 = "", int timeoutSeconds = 60);
RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env, const ChildOptions& options,
              int timeoutSeconds = 60);

// The build's binaries: $HERON_BIN/<name> (set by ctest), falling back to
// build/bin relative to the current directory.
std::string binary(const std::string& name);
std::string heronBin();
std::string simBin();
// The shared library: $HERON_LIB/libheron.so.
std::string heronLib();

// A fresh, empty collection root under /tmp, removed (with everything in it)
// on destruction. The path is canonical, so it is what heron prints.
class TempRoot {
 public:
  TempRoot();

  const std::string& path() const { return dir_.path(); }
  // path() + "/" + name.
  std::string file(const std::string& name) const { return dir_.file(name); }
  // {"HERON_ROOT=<path>"}.
  std::vector<std::string> env() const;
  // Runs `heron-sim create NAME ARGS...` on this root; true on status 0.
  bool create(const std::string& name, const std::vector<std::string>& args = {}) const;
  // create() of each name in turn; false at the first that fails.
  bool createAll(const std::vector<std::string>& names) const;

 private:
  TempDir dir_;
};

// A copy of heron and of libheron.so.0 in a fresh directory under /tmp that
// every user may enter and read, removed on destruction. A test that runs
// heron as another user runs this copy: the build tree may sit under a
// directory that user cannot enter (a clone under a mode-700 directory). The
// launcher finds the copied library through env(), not through the build
// tree's run path.
class PublicHeronCopy {
 public:
  PublicHeronCopy();

  // False, with the reason in error(), when the copy could not be made.
  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  // The copied launcher.
  std::string heron() const { return dir_.file("bin/heron"); }
  // {"LD_LIBRARY_PATH=<dir>/lib"}.
  std::vector<std::string> env() const;

 private:
  TempDir dir_;
  std::string error_;
};

// The bytes of tests/golden/<name> in the source tree ($HERON_SOURCE, set by
// ctest, else the current directory). A golden file is written from the
// documentation, never from a run of the program. An unreadable file is said
// on standard error and reads as "".
std::string golden(const std::string& name);

// Whole-file helpers for tests.
std::string readFile(const std::string& path);
bool writeFile(const std::string& path, const std::string& bytes);
bool exists(const std::string& path);

}  // namespace HeronTest

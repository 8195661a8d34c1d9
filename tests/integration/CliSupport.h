// Shared pieces of the heron command-line tests: the help text as the
// documentation gives it (tests/golden/help.txt), and a fixture that runs the real heron binary on a
// fresh collection root.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Run.h"

namespace HeronTest {

// The help text as the documentation gives it, byte for byte.
inline const std::string& helpText() {
  static const std::string text = golden("help.txt");
  return text;
}

inline const char* const kChrootHint =
    "The utility must be run from the same directory as the executable that produces the table.\n";

// What heron prints before the output of the tests' usual table, "t".
inline const char* const kTableNameT = "Table Name: t\n\n";

class CliTest : public testing::Test {
 protected:
  // Runs heron (argv[0] "heron") with HERON_ROOT set to the fixture's root,
  // plus `extraEnv`, in `cwd` when given.
  RunResult heron(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv = {},
                  const std::string& cwd = "") const {
    std::vector<std::string> argv = {heronBin()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env = root.env();
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    return run(argv, env, cwd, "heron");
  }

  // Same, with exactly the environment given (no HERON_ROOT unless listed).
  RunResult heronWithEnv(const std::vector<std::string>& args, const std::vector<std::string>& env,
                         const std::string& cwd = "") const {
    std::vector<std::string> argv = {heronBin()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, env, cwd, "heron");
  }

  TempRoot root;
};

// Checks standard output, standard error and exit status of a run at once
// (EXPECT_TRUE(same(run, out, err, status))), naming every difference.
inline testing::AssertionResult same(const RunResult& result, const std::string& out, const std::string& err,
                                     int status) {
  bool ok = true;
  std::string why;
  if (!result.exited()) {
    ok = false;
    why += "\n  ended by " + result.describe();
  } else if (result.status != status) {
    ok = false;
    why += "\n  status " + std::to_string(result.status) + ", expected " + std::to_string(status);
  }
  if (result.out != out) {
    ok = false;
    why += "\n  stdout:\n[" + result.out + "]\n  expected:\n[" + out + "]";
  }
  if (result.err != err) {
    ok = false;
    why += "\n  stderr:\n[" + result.err + "]\n  expected:\n[" + err + "]";
  }
  return ok ? testing::AssertionSuccess() : testing::AssertionFailure() << why;
}

}  // namespace HeronTest

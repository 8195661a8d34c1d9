// Random command lines never crash heron: every run ends with status 0 or 1,
// never by a signal. The lines are built (seeded, so a failure repeats) from
// the option letters, the long options, arguments good and bad, and junk.
// Output files only ever go into a temporary directory.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "integration/CliSupport.h"

namespace HeronTest {
namespace {

class RandomLines {
 public:
  RandomLines(unsigned seed, const TempRoot& root, const TempRoot& outputs) : rng_(seed), root_(root), out_(outputs) {}

  std::vector<std::string> next() {
    std::vector<std::string> args;
    int count = pick(0, 7);
    for (int i = 0; i < count; ++i) {
      addOne(args);
    }
    return args;
  }

 private:
  int pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(rng_); }
  template <std::size_t N>
  const char* oneOf(const char* const (&items)[N]) {
    return items[static_cast<std::size_t>(pick(0, static_cast<int>(N) - 1))];
  }

  std::string junk() {
    std::string text;
    int length = pick(0, 12);
    for (int i = 0; i < length; ++i) {
      text.push_back(static_cast<char>(pick(1, 255)));
    }
    return text;
  }

  std::string number() {
    static const char* const numbers[] = {"0",           "1",    "7", "-1",         "4095",
                                          "4096",        "12x",  "x", "2147483647", "2147483648",
                                          "-2147483649", "  42", "",  "0x10",       "99999999999999999999",
                                          "+3",          "1e3",  "-0"};
    return pick(0, 5) == 0 ? junk() : oneOf(numbers);
  }

  std::string tableName() {
    static const char* const names[] = {"tab",  "tab2", "ta", "t",     "md",   "md/eu/quotes", "*",
                                        "tab*", "?",    "[",  "[a-",   "md/*", "nope",         "",
                                        "/",    ".",    "..", "../..", "tab/", "//tab"};
    switch (pick(0, 6)) {
      case 0:
        return root_.path();
      case 1:
        return root_.file(oneOf(names));
      case 2:
        return junk();
      default:
        return oneOf(names);
    }
  }

  std::string outputFile() {
    static const char* const files[] = {"out.txt", "missing/out.txt", "", "a/b/c", "out2.txt"};
    return out_.file(oneOf(files));
  }

  // An option and its value, as two words or joined in one.
  static void addValued(std::vector<std::string>& args, const std::string& option, const std::string& value,
                        bool joined) {
    if (joined) {
      args.push_back(option + value);
    } else {
      args.push_back(option);
      args.push_back(value);
    }
  }

  void addOne(std::vector<std::string>& args) {
    static const char* const flags[] = {"-a", "-d",    "-e",        "-q",   "-R",   "-s",      "-p",  "-j", "-O",
                                        "-w", "-A",    "-sq",       "-Re",  "-dO",  "-aes",    "-wj", "-",  "--",
                                        "-Z", "--who", "--who-all", "--wh", "--he", "--bogus", "-?",  "-:"};
    const int kind = pick(0, 12);
    switch (kind) {
      case 0:
      case 1:
      case 2:
      case 3:
        args.emplace_back(oneOf(flags));
        break;
      case 4:
      case 5:
        addValued(args, "-r", number(), kind == 5);
        break;
      case 6:
        // Pids are rare and mostly bad: a good one runs a whole /proc walk.
        if (pick(0, 3) == 0) {
          args.emplace_back(pick(0, 1) == 0 ? "-c" : "--what");
          args.push_back(number());
        } else {
          args.push_back("--what=" + number());
        }
        break;
      case 7:
      case 8:
        addValued(args, "-f", outputFile(), kind == 8);
        break;
      case 9:
        if (pick(0, 20) == 0) {
          args.emplace_back(pick(0, 1) == 0 ? "-h" : "--help");
        } else {
          args.push_back(junk());
        }
        break;
      default:
        args.push_back(tableName());
        break;
    }
  }

  std::mt19937 rng_;
  const TempRoot& root_;
  const TempRoot& out_;
};

int runCount() {
  if (const char* text = std::getenv("HERON_RANDOM_RUNS")) {
    return std::atoi(text);
  }
#if defined(HERON_SANITIZED)
  return 500;  // every run starts a sanitized process
#else
  return 2500;
#endif
}

TEST(CliRandom, RandomCommandLinesEndWithStatusZeroOrOne) {
  TempRoot root;
  TempRoot outputs;
  ASSERT_TRUE(root.createAll({"tab", "tab2", "md/eu/quotes"}));
  unsigned seed = 20261122;
  if (const char* text = std::getenv("HERON_RANDOM_SEED")) {
    seed = static_cast<unsigned>(std::strtoul(text, nullptr, 10));
  }
  RandomLines lines(seed, root, outputs);
  int runs = runCount();
  int failures = 0;
  // A time budget keeps the test short on a loaded machine; the lines run
  // are always a prefix of the same seeded sequence.
  const auto start = std::chrono::steady_clock::now();
  const auto budget = std::chrono::seconds(25);
  int done = 0;
  for (int i = 0; i < runs && failures < 10 && std::chrono::steady_clock::now() - start < budget; ++i, ++done) {
    std::vector<std::string> args = lines.next();
    std::vector<std::string> argv = {heronBin()};
    argv.insert(argv.end(), args.begin(), args.end());
    RunResult result = run(argv, root.env(), "", "heron", 30);
    if (!result.exited() || (result.status != 0 && result.status != 1)) {
      ++failures;
      std::string line;
      for (const std::string& arg : args) {
        line += " '" + arg + "'";
      }
      ADD_FAILURE() << "run " << i << " (seed " << seed << "): heron" << line << " ended with " << result.describe()
                    << "\nstderr: " << result.err;
    }
  }
  RecordProperty("commandLines", done);
  // A floor that even a sanitized build on a busy machine clears easily;
  // it only guards against a test that runs (almost) nothing.
  EXPECT_GE(done, std::min(runs, 50)) << "too few command lines in the time budget";
}

}  // namespace
}  // namespace HeronTest

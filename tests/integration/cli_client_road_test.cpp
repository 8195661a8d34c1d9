// The client road: which settings it takes and which it ignores. The
// reports themselves are tested with the client scanner; here two command
// lines that must take the same road are compared run against run.
#include <gtest/gtest.h>

#include "integration/CliSupport.h"

namespace HeronTest {
namespace {

// The reports cover the whole host: tables of other collections (shown by
// absolute path) come and go with other processes, and so do the notes on
// standard error about their readers. Only what concerns this test's own
// root is compared.

// The pieces of `text` that end in `separator` (the last may not), less
// those `foreign` says belong to someone else.
template <typename Foreign>
std::string without(const std::string& text, const std::string& separator, Foreign foreign) {
  std::string kept;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = text.find(separator, at);
    const std::size_t stop = end == std::string::npos ? text.size() : end + separator.size();
    const std::string piece = text.substr(at, stop - at);
    if (!foreign(piece)) {
      kept += piece;
    }
    at = stop;
  }
  return kept;
}

std::string ownBlocks(const std::string& report) {
  return without(report, "\n\n",
                 [](const std::string& block) { return block.find("Heron table \"/") != std::string::npos; });
}

std::string ownErrors(const std::string& err) {
  return without(err, "\n",
                 [](const std::string& line) { return line.rfind("cannot populate heron table from ", 0) == 0; });
}

RunResult own(const RunResult& result) {
  RunResult kept = result;
  kept.out = ownBlocks(result.out);
  kept.err = ownErrors(result.err);
  return kept;
}

class CliClientRoad : public CliTest {
 protected:
  void SetUp() override { ASSERT_TRUE(root.create("tab")); }

  // The reports read the whole host's /proc, where other processes come
  // and go between two runs; a difference that does not repeat is not the
  // road's, so the pair is run up to three times.
  void expectSameRun(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    RunResult first;
    RunResult second;
    for (int attempt = 0; attempt < 3; ++attempt) {
      first = own(heron(a));
      second = own(heron(b));
      if (first.exited() && same(second, first.out, first.err, first.status)) {
        break;
      }
    }
    ASSERT_TRUE(first.exited()) << first.describe();
    EXPECT_TRUE(same(second, first.out, first.err, first.status));
    EXPECT_TRUE(first.status == 0 || first.status == 1) << first.status;
    EXPECT_EQ(first.err.find("Table Name: "), std::string::npos) << first.err;
    EXPECT_EQ(first.err.find("No table was found"), std::string::npos) << first.err;
  }
  TempRoot outputs;
};

TEST_F(CliClientRoad, PidWithTrailingTextIsAccepted) { expectSameRun({"-c", "12x"}, {"-c", "12"}); }

TEST_F(CliClientRoad, LongWhatIsTheSameAsC) { expectSameRun({"--what", "12"}, {"-c", "12"}); }

TEST_F(CliClientRoad, ALaterPidReplacesAnEarlierOne) { expectSameRun({"-c", "7", "-c", "12"}, {"-c", "12"}); }

TEST_F(CliClientRoad, WhoAllWinsOverAPid) {
  expectSameRun({"-A", "-c", "5"}, {"-A"});
  expectSameRun({"-c", "5", "--who-all"}, {"-A"});
}

TEST_F(CliClientRoad, ExpressionAndDumpSettingsAreIgnored) {
  expectSameRun({"-c", "5", "name", "-s"}, {"-c", "5"});
  expectSameRun({"-A", "-j", "-w", "-a", "-r", "3", "tab"}, {"-A"});
}

TEST_F(CliClientRoad, OutputFileCannotBeOpened) {
  std::string file = outputs.file("missing/out.txt");
  EXPECT_TRUE(same(heron({"-A", "-f", file}), "", "Error opening " + file + "\n", 1));
  EXPECT_TRUE(same(heron({"-c", "5", "-f", file, "tab"}), "", "Error opening " + file + "\n", 1));
}

TEST_F(CliClientRoad, ReportGoesToTheOutputFile) {
  std::string file = outputs.file("out.txt");
  RunResult toStdout;
  RunResult toFile;
  for (int attempt = 0; attempt < 3; ++attempt) {
    toStdout = own(heron({"-A"}));
    toFile = own(heron({"-A", "-f", file}));
    if (ownBlocks(toFile.out + readFile(file)) == toStdout.out) {
      break;
    }
  }
  // Only the run-as-root warning (for a user other than root) stays on
  // standard output; the report itself moves to the file.
  ASSERT_TRUE(toFile.exited()) << toFile.describe();
  EXPECT_EQ(toFile.status, toStdout.status);
  EXPECT_EQ(toFile.err, toStdout.err);
  EXPECT_EQ(ownBlocks(toFile.out + readFile(file)), toStdout.out);
}

}  // namespace
}  // namespace HeronTest

// One table selected: the output file, the styled road and the order of the
// reader set-up failures.
#include <gtest/gtest.h>
#include <unistd.h>

#include "integration/CliSupport.h"

namespace HeronTest {
namespace {

class CliTable : public CliTest {
 protected:
  void SetUp() override { ASSERT_TRUE(root.create("tab")); }
  TempRoot outputs;
};

TEST_F(CliTable, OutputFileInAMissingDirectory) {
  std::string file = outputs.file("missing/out.txt");
  EXPECT_TRUE(same(heron({"-s", "-f", file, "tab"}), "", "Table Name: tab\n\nError opening " + file + "\n", 1));
  EXPECT_FALSE(exists(outputs.file("missing")));
}

TEST_F(CliTable, OutputFileIsOpenedBeforeTheStyledRoad) {
  std::string file = outputs.file("missing/out.txt");
  EXPECT_TRUE(same(heron({"-j", "-f", file, "tab"}), "", "Table Name: tab\n\nError opening " + file + "\n", 1));
}

TEST_F(CliTable, OnlyTheLastOutputFileCounts) {
  std::string good = outputs.file("good.txt");
  std::string bad = outputs.file("missing/out.txt");
  EXPECT_TRUE(
      same(heron({"-f", good, "-f", bad, "-j", "tab"}), "", "Table Name: tab\n\nError opening " + bad + "\n", 1));
  EXPECT_FALSE(exists(good));
}

TEST_F(CliTable, StyledRoadTruncatesTheOutputFileAndWritesNothingToIt) {
  std::string file = outputs.file("out.txt");
  ASSERT_TRUE(writeFile(file, "old contents\n"));
  EXPECT_TRUE(
      same(heron({"-p", "-f", file, "tab"}), "", "Table Name: tab\n\nNo knowledge of root type:HeronTable\n", 1));
  EXPECT_TRUE(exists(file));
  EXPECT_EQ(readFile(file), "");
}

TEST_F(CliTable, StyledRoadNamesTheOwnersType) {
  ASSERT_TRUE(root.create("book", {"--type-name", "OrderBook"}));
  EXPECT_TRUE(same(heron({"-j", "book"}), "", "Table Name: book\n\nNo knowledge of root type:OrderBook\n", 1));
}

TEST_F(CliTable, StyledRoadWithoutATypeName) {
  ASSERT_TRUE(root.create("untyped", {"--type-name", ""}));
  EXPECT_TRUE(same(heron({"-p", "untyped"}), "",
                   "Table Name: untyped\n\nFailed to fetch type of root, rootPath:" + root.file("untyped") + "\n", 1));
}

TEST_F(CliTable, StyledRoadPrintsNoDumpEvenWithStatistics) {
  EXPECT_TRUE(same(heron({"-s", "-d", "-a", "-e", "-j", "tab"}), "",
                   "Table Name: tab\n\nNo knowledge of root type:HeronTable\n", 1));
}

TEST_F(CliTable, StyleIsTestedBeforeWho) {
  EXPECT_TRUE(same(heron({"-w", "-p", "tab"}), "", "Table Name: tab\n\nNo knowledge of root type:HeronTable\n", 1));
  EXPECT_TRUE(same(heron({"--who", "-j", "tab"}), "", "Table Name: tab\n\nNo knowledge of root type:HeronTable\n", 1));
}

TEST_F(CliTable, RegionScannerFailureComesFirst) {
  ::unlink(root.file("tab/quarry").c_str());
  EXPECT_TRUE(same(heron({"-s", "tab"}), "", "Table Name: tab\n\nFailed to initialize QuarryScanner\n", 1));
}

TEST_F(CliTable, RegionScannerFailureEvenWhenTheQueuesAreMissingToo) {
  ::unlink(root.file("tab/quarry").c_str());
  ::unlink(root.file("tab/relay.1").c_str());
  ::unlink(root.file("tab/relay.2").c_str());
  EXPECT_TRUE(same(heron({"-q", "tab"}), "", "Table Name: tab\n\nFailed to initialize QuarryScanner\n", 1));
}

TEST_F(CliTable, ReaderFailureLeavesAnEmptyOutputFile) {
  ::unlink(root.file("tab/quarry").c_str());
  std::string file = outputs.file("out.txt");
  ASSERT_TRUE(writeFile(file, "old contents\n"));
  EXPECT_TRUE(same(heron({"-s", "-f", file, "tab"}), "", "Table Name: tab\n\nFailed to initialize QuarryScanner\n", 1));
  EXPECT_EQ(readFile(file), "");
}

}  // namespace
}  // namespace HeronTest

namespace HeronTest {
namespace {

TEST_F(CliTable, WhoWithStatisticsIsTheClientReportOnly) {
  RunResult who = heron({"-w", "tab"});
  RunResult whoStats = heron({"-w", "-s", "-a", "tab"});
  ASSERT_TRUE(who.exited()) << who.describe();
  EXPECT_TRUE(same(whoStats, who.out, who.err, who.status));
  EXPECT_EQ(whoStats.out.find("Relay headers:"), std::string::npos) << whoStats.out;
  EXPECT_TRUE(whoStats.err.rfind("Table Name: tab\n\n", 0) == 0) << whoStats.err;
}

TEST_F(CliTable, WhoLongFormIsTheSameReport) {
  RunResult shortForm = heron({"-w", "tab"});
  ASSERT_TRUE(shortForm.exited()) << shortForm.describe();
  EXPECT_TRUE(same(heron({"--who", "tab"}), shortForm.out, shortForm.err, shortForm.status));
}

TEST_F(CliTable, NoDumpFlagsStillSetUpTheRegionScanner) {
  ::unlink(root.file("tab/quarry").c_str());
  EXPECT_TRUE(same(heron({"tab"}), "", "Table Name: tab\n\nFailed to initialize QuarryScanner\n", 1));
}

}  // namespace
}  // namespace HeronTest

// The table road: resolving EXPR to one table and the messages around it.
// The styled road (-j, -p) ends in a fixed message whatever the readers do,
// which makes it the probe for "which table was handed over".
#include <gtest/gtest.h>

#include "integration/CliSupport.h"

namespace HeronTest {
namespace {

using CliExpr = CliTest;

const char* const kExactNotice =
    "Exact match found. There are other matches. To see the other matches, try using the following:\n";
const char* const kListHeading = "More than one table was found. Try again using one of the following tables:\n";
const char* const kNoType = "No knowledge of root type:HeronTable\n";

TEST_F(CliExpr, NoTableInAnEmptyCollection) {
  EXPECT_TRUE(same(heron({}), "", "No table was found in " + root.path() + "\n", 1));
}

TEST_F(CliExpr, NoTableMatchesTheExpression) {
  ASSERT_TRUE(root.create("tab"));
  EXPECT_TRUE(same(heron({"-s", "other"}), "", "No table was found in " + root.path() + "\n", 1));
}

TEST_F(CliExpr, NoTableInAMissingRootPrintsTheRootAsGiven) {
  EXPECT_TRUE(same(heronWithEnv({"tab"}, {"HERON_ROOT=" + root.file("missing")}), "",
                   "No table was found in " + root.file("missing") + "\n", 1));
}

TEST_F(CliExpr, ChrootAddsTheHintAndTakesTheRootFromTheWorkingDirectory) {
  EXPECT_TRUE(same(heronWithEnv({"tab"}, {"HERON_ROOT=/jail/heron", "Q7_CHROOT=1"}, root.path()), "",
                   "No table was found in " + root.path() + "/jail/heron\n" + kChrootHint, 1));
}

TEST_F(CliExpr, ChrootSetButEmptyStillAddsTheHint) {
  EXPECT_TRUE(
      same(heron({"tab"}, {"Q7_CHROOT="}, "/"), "", "No table was found in " + root.path() + "\n" + kChrootHint, 1));
}

TEST_F(CliExpr, MissingChrootSuppressesOnlyTheHint) {
  RunResult result = heron({"tab"}, {}, "/");
  EXPECT_TRUE(same(result, "", "No table was found in " + root.path() + "\n", 1));
}

TEST_F(CliExpr, ChrootFindsTablesUnderTheWorkingDirectory) {
  TempRoot jail;
  ASSERT_TRUE(run({simBin(), "create", "tab"}, {"HERON_ROOT=" + jail.file("heron")}).status == 0);
  EXPECT_TRUE(same(heronWithEnv({"-j", "tab"}, {"HERON_ROOT=/heron", "Q7_CHROOT=1"}, jail.path()), "",
                   std::string("Table Name: tab\n\n") + kNoType, 1));
}

TEST_F(CliExpr, TablesOfAnotherKindAreNotFound) {
  ASSERT_TRUE(root.create("seg", {"--type", "1"}));
  EXPECT_TRUE(same(heron({"seg"}), "", "No table was found in " + root.path() + "\n", 1));
}

TEST_F(CliExpr, OneMatchIsNamedAndHandedOver) {
  ASSERT_TRUE(root.create("orders"));
  EXPECT_TRUE(same(heron({"-j", "ord"}), "", std::string("Table Name: orders\n\n") + kNoType, 1));
}

TEST_F(CliExpr, NoArgumentsWithSeveralTablesListsThemAll) {
  ASSERT_TRUE(root.createAll({"tab2", "md/eu/quotes", "tab"}));
  EXPECT_TRUE(same(heron({}), "", std::string(kListHeading) + "  - md/eu/quotes\n  - tab\n  - tab2\n", 1));
}

TEST_F(CliExpr, SeveralMatchesWithoutAnExactOneAreListed) {
  ASSERT_TRUE(root.createAll({"tab", "tab2", "other"}));
  EXPECT_TRUE(same(heron({"-j", "ta"}), "", std::string(kListHeading) + "  - tab\n  - tab2\n", 1));
}

TEST_F(CliExpr, ExactMatchAmongSeveralIsTakenWithANotice) {
  ASSERT_TRUE(root.createAll({"tab", "tab2", "table/x"}));
  EXPECT_TRUE(same(heron({"-j", "tab"}), "", std::string(kExactNotice) + "    'tab*'\n" + kNoType, 1));
}

TEST_F(CliExpr, ExactMatchNeedNotComeFirst) {
  // "tab1" sorts before "tab?", and the glob tab? matches both.
  ASSERT_TRUE(root.createAll({"tab1", "tab?"}));
  EXPECT_TRUE(same(heron({"-j", "tab?"}), "", std::string(kExactNotice) + "    'tab?*'\n" + kNoType, 1));
}

TEST_F(CliExpr, ExactMatchOfANestedName) {
  ASSERT_TRUE(root.createAll({"md/eu", "md/eu/quotes"}));
  EXPECT_TRUE(same(heron({"-p", "md/eu"}), "", std::string(kExactNotice) + "    'md/eu*'\n" + kNoType, 1));
}

TEST_F(CliExpr, GlobWithSeveralMatchesIsListed) {
  ASSERT_TRUE(root.createAll({"tab", "tab2"}));
  EXPECT_TRUE(same(heron({"-j", "tab*"}), "", std::string(kListHeading) + "  - tab\n  - tab2\n", 1));
}

TEST_F(CliExpr, ExprEndingInAsteriskListsEvenWhenATableHasExactlyThatName) {
  ASSERT_TRUE(root.createAll({"tab*", "tab2"}));
  EXPECT_TRUE(same(heron({"-j", "tab*"}), "", std::string(kListHeading) + "  - tab*\n  - tab2\n", 1));
}

TEST_F(CliExpr, GlobWithOneMatchIsNamed) {
  ASSERT_TRUE(root.createAll({"md/eu/quotes", "tab"}));
  EXPECT_TRUE(same(heron({"-j", "*quotes"}), "", std::string("Table Name: md/eu/quotes\n\n") + kNoType, 1));
}

TEST_F(CliExpr, OnlyTheFirstPositionalArgumentIsLookedUp) {
  ASSERT_TRUE(root.createAll({"a", "b"}));
  EXPECT_TRUE(same(heron({"-j", "a", "b"}), "", std::string("Table Name: a\n\n") + kNoType, 1));
}

TEST_F(CliExpr, OptionsAfterTheExpressionStillCount) {
  ASSERT_TRUE(root.create("a"));
  EXPECT_TRUE(same(heron({"a", "-j"}), "", std::string("Table Name: a\n\n") + kNoType, 1));
}

TEST_F(CliExpr, AbsolutePathInsideTheRootIsResolvedToItsName) {
  ASSERT_TRUE(root.create("orders"));
  EXPECT_TRUE(same(heron({"-j", root.file("orders")}), "", std::string("Table Name: orders\n\n") + kNoType, 1));
}

TEST_F(CliExpr, AbsolutePathOutsideTheRootNamesThatTable) {
  TempRoot other;
  ASSERT_TRUE(other.create("far"));
  std::string path = other.file("far");
  EXPECT_TRUE(same(heron({"-j", path}), "", "Table Name: " + path + "\n\n" + kNoType, 1));
}

// Both styles end in the same message, so this proves the road taken, not
// which of the two styles won.
TEST_F(CliExpr, BothStylesTakeTheStyledRoadWhicheverComesLast) {
  ASSERT_TRUE(root.create("tab"));
  EXPECT_TRUE(same(heron({"-j", "-p", "tab"}), "", std::string("Table Name: tab\n\n") + kNoType, 1));
  EXPECT_TRUE(same(heron({"-p", "-j", "tab"}), "", std::string("Table Name: tab\n\n") + kNoType, 1));
}

}  // namespace
}  // namespace HeronTest

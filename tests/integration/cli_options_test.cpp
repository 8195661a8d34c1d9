// The command line: help, option errors and the -c checks.
#include <gtest/gtest.h>

#include "integration/CliSupport.h"

namespace HeronTest {
namespace {

using CliOptions = CliTest;

TEST_F(CliOptions, ShortHelpPrintsHelpTextAndSucceeds) { EXPECT_TRUE(same(heron({"-h"}), helpText(), "", 0)); }

TEST_F(CliOptions, LongHelpPrintsHelpTextAndSucceeds) { EXPECT_TRUE(same(heron({"--help"}), helpText(), "", 0)); }

TEST_F(CliOptions, HelpWinsOverEverythingAfterIt) {
  ASSERT_TRUE(root.create("tab"));
  EXPECT_TRUE(same(heron({"-s", "-h", "tab", "-A"}), helpText(), "", 0));
}

TEST_F(CliOptions, UnknownOptionPrintsHelpAfterTheParsersComplaint) {
  EXPECT_TRUE(same(heron({"-x"}), helpText(), "heron: invalid option -- 'x'\n", 0));
}

TEST_F(CliOptions, UnknownLongOptionPrintsHelp) {
  EXPECT_TRUE(same(heron({"--bogus"}), helpText(), "heron: unrecognized option '--bogus'\n", 0));
}

TEST_F(CliOptions, MissingFileArgumentPrintsHelp) {
  EXPECT_TRUE(same(heron({"-f"}), helpText(), "heron: option requires an argument -- 'f'\n", 0));
}

TEST_F(CliOptions, MissingPidArgumentPrintsHelp) {
  EXPECT_TRUE(same(heron({"-c"}), helpText(), "heron: option requires an argument -- 'c'\n", 0));
}

TEST_F(CliOptions, MissingRegionArgumentPrintsHelp) {
  EXPECT_TRUE(same(heron({"-s", "-r"}), helpText(), "heron: option requires an argument -- 'r'\n", 0));
}

TEST_F(CliOptions, MissingWhatArgumentPrintsHelp) {
  EXPECT_TRUE(same(heron({"--what"}), helpText(), "heron: option '--what' requires an argument\n", 0));
}

TEST_F(CliOptions, HelpBeforeAnInvalidPidPrintsHelp) { EXPECT_TRUE(same(heron({"-h", "-c", "0"}), helpText(), "", 0)); }

TEST_F(CliOptions, InvalidPidBeforeHelpIsAnError) {
  EXPECT_TRUE(same(heron({"-c", "0", "-h"}), "", "0 is an invalid PID \n", 1));
}

TEST_F(CliOptions, PidThatIsNotANumber) {
  EXPECT_TRUE(same(heron({"-c", "abc"}), "", "Error obtaining client with PID abc:stoi\n", 1));
}

TEST_F(CliOptions, PidTextIsQuotedExactlyAsTyped) {
  EXPECT_TRUE(same(heron({"--what", " x 1"}), "", "Error obtaining client with PID  x 1:stoi\n", 1));
}

TEST_F(CliOptions, EmptyPid) { EXPECT_TRUE(same(heron({"-c", ""}), "", "Error obtaining client with PID :stoi\n", 1)); }

TEST_F(CliOptions, PidAboveIntRange) {
  EXPECT_TRUE(same(heron({"-c", "2147483648"}), "", "Error obtaining client with PID 2147483648:stoi\n", 1));
}

TEST_F(CliOptions, PidBelowIntRange) {
  EXPECT_TRUE(same(heron({"--what=-99999999999"}), "", "Error obtaining client with PID -99999999999:stoi\n", 1));
}

TEST_F(CliOptions, ZeroPidIsInvalid) { EXPECT_TRUE(same(heron({"-c", "0"}), "", "0 is an invalid PID \n", 1)); }

TEST_F(CliOptions, NegativePidIsInvalid) { EXPECT_TRUE(same(heron({"-c", "-5"}), "", "-5 is an invalid PID \n", 1)); }

TEST_F(CliOptions, InvalidPidIsPrintedAsTheConvertedNumber) {
  EXPECT_TRUE(same(heron({"-c", "  -007xyz"}), "", "-7 is an invalid PID \n", 1));
}

TEST_F(CliOptions, OptionsAfterABadPidAreNeverLookedAt) {
  EXPECT_TRUE(same(heron({"-c", "abc", "-h"}), "", "Error obtaining client with PID abc:stoi\n", 1));
  EXPECT_TRUE(same(heron({"-c", "0", "-x"}), "", "0 is an invalid PID \n", 1));
}

TEST_F(CliOptions, ALaterBadPidIsStillChecked) {
  EXPECT_TRUE(same(heron({"-c", "5", "-c", "0"}), "", "0 is an invalid PID \n", 1));
}

}  // namespace
}  // namespace HeronTest

// Command names from the command line, read once per pid.
#include <gtest/gtest.h>

#include "unit/client/FakeProc.h"

namespace {

using HeronTest::FakeProc;

class CommandNamesTest : public ::testing::Test {
 protected:
  FakeProc proc;
  std::ostringstream out;
  Heron::HeronClientScanner scanner{&out, HeronTest::tableRoot("/some/table"), "", proc.root()};
  std::unordered_map<int, std::string> cache;

  std::string commandOf(int pid, const std::string& cmdline) {
    proc.addProcess(std::to_string(pid), "", "/usr/bin/x", cmdline);
    Heron::Model::HeronClientList clients{Heron::Model::HeronClient(pid, "x")};
    scanner.doPopulateCommandNames(clients, cache);
    return clients[0].command;
  }
};

TEST_F(CommandNamesTest, PathAndArgumentsAreCutAway) {
  EXPECT_EQ(commandOf(10, std::string("/usr/local/bin/feedd\0--port\0"
                                      "7000",
                                      28)),
            "feedd");
}

TEST_F(CommandNamesTest, RelativePathIsCut) { EXPECT_EQ(commandOf(10, std::string("./feed\0", 7)), "feed"); }

TEST_F(CommandNamesTest, TrailingSlashGivesEmptyCommand) { EXPECT_EQ(commandOf(10, "/usr/bin/"), ""); }

TEST_F(CommandNamesTest, PlainWordIsKeptWhole) { EXPECT_EQ(commandOf(10, "feed"), "feed"); }

TEST_F(CommandNamesTest, UnreadableCommandLineIsEmptyAndCached) {
  Heron::Model::HeronClientList clients{Heron::Model::HeronClient(77, "x")};
  scanner.doPopulateCommandNames(clients, cache);
  EXPECT_EQ(clients[0].command, "");
  ASSERT_EQ(cache.count(77), 1U);
  EXPECT_EQ(cache.at(77), "");
}

TEST_F(CommandNamesTest, PidInBothListsIsReadOnce) {
  proc.addProcess("10", "", "/usr/bin/x", "first");
  Heron::Model::HeronClientList writers{Heron::Model::HeronClient(10, "x")};
  Heron::Model::HeronClientList shadows{Heron::Model::HeronClient(10, "x"), Heron::Model::HeronClient(11, "y")};
  HeronTest::TraceMask mask(0x20);
  testing::internal::CaptureStderr();
  scanner.doPopulateCommandNames(writers, cache);
  // A second read would now see the new text.
  HeronTest::writeFile(proc.root() + "/10/cmdline", "second");
  scanner.doPopulateCommandNames(shadows, cache);
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_EQ(writers[0].command, "first");
  EXPECT_EQ(shadows[0].command, "first");
  EXPECT_NE(traces.find("Extracted command first for pid 10"), std::string::npos) << traces;
  EXPECT_NE(traces.find("Found command first in cache for 10"), std::string::npos) << traces;
}

}  // namespace

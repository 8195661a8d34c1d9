// The report's output: a -f file never lands in the collection root or in a
// table, and a report that cannot be written is a failure.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "integration/CliSupport.h"
#include "support/TempDir.h"

namespace HeronTest {
namespace {

class CliOutput : public CliTest {
 protected:
  void SetUp() override { ASSERT_TRUE(root.create("t")); }

  // heron (argv[0] its path) with the standard output or the file size
  // limit of `options`.
  RunResult heronWith(const ChildOptions& options, const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {heronBin()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, root.env(), options);
  }
  static ChildOptions outputTo(ChildOptions::Output output, const std::string& file = "") {
    ChildOptions options;
    options.output = output;
    options.outputFile = file;
    return options;
  }
  const ChildOptions full_ = outputTo(ChildOptions::Output::File, "/dev/full");
  const ChildOptions closed_ = outputTo(ChildOptions::Output::Closed);
};

TEST_F(CliOutput, TableFileAsOutputIsRefusedAndLeftWhole) {
  const std::string relay = root.file("t/relay.1");
  const std::string before = readFile(relay);
  ASSERT_FALSE(before.empty());
  EXPECT_TRUE(same(heron({"-f", relay, "-s", "t"}), "", std::string(kTableNameT) + "Error opening " + relay + "\n", 1));
  EXPECT_EQ(readFile(relay), before);
}

TEST_F(CliOutput, NewFileInsideTheRootIsRefusedAndNotCreated) {
  const std::string inside = root.file("dump");
  EXPECT_TRUE(
      same(heron({"-f", inside, "-s", "t"}), "", std::string(kTableNameT) + "Error opening " + inside + "\n", 1));
  EXPECT_FALSE(exists(inside));
}

TEST_F(CliOutput, RelativeNameThatResolvesInsideTheRootIsRefused) {
  EXPECT_TRUE(same(heron({"-f", "../x", "-s", "t"}, {}, root.file("t")), "",
                   std::string(kTableNameT) + "Error opening ../x\n", 1));
  EXPECT_FALSE(exists(root.file("x")));
}

TEST_F(CliOutput, ClientRoadRefusesTheRootToo) {
  const std::string inside = root.file("t/who");
  EXPECT_TRUE(same(heron({"-A", "-f", inside}), "", "Error opening " + inside + "\n", 1));
  EXPECT_FALSE(exists(inside));
}

TEST_F(CliOutput, FileOfATableOfAnotherRootIsRefused) {
  TempRoot other;
  ASSERT_TRUE(other.create("u"));
  const std::string ember = other.file("u/ember");
  const std::string before = readFile(ember);
  EXPECT_TRUE(same(heron({"-f", ember, "-s", "t"}), "", std::string(kTableNameT) + "Error opening " + ember + "\n", 1));
  EXPECT_EQ(readFile(ember), before);
  const std::string fresh = other.file("u/new");
  EXPECT_TRUE(same(heron({"-f", fresh, "-s", "t"}), "", std::string(kTableNameT) + "Error opening " + fresh + "\n", 1));
  EXPECT_FALSE(exists(fresh));
}

TEST_F(CliOutput, SymlinkToATableFileIsRefused) {
  TempDir outside("heron-output");
  const std::string link = outside.path() + "/link";
  ASSERT_EQ(::symlink(root.file("t/relay.1").c_str(), link.c_str()), 0);
  const std::string before = readFile(root.file("t/relay.1"));
  EXPECT_TRUE(same(heron({"-f", link, "-s", "t"}), "", std::string(kTableNameT) + "Error opening " + link + "\n", 1));
  EXPECT_EQ(readFile(root.file("t/relay.1")), before);
}

TEST_F(CliOutput, DanglingSymlinkIntoTheRootIsRefused) {
  TempDir outside("heron-output");
  const std::string link = outside.path() + "/link";
  ASSERT_EQ(::symlink(root.file("made-by-heron").c_str(), link.c_str()), 0);
  EXPECT_TRUE(same(heron({"-f", link, "-s", "t"}), "", std::string(kTableNameT) + "Error opening " + link + "\n", 1));
  EXPECT_FALSE(exists(root.file("made-by-heron")));
}

TEST_F(CliOutput, FileOutsideEveryTableIsWritten) {
  TempDir outside("heron-output");
  const std::string file = outside.path() + "/stats";
  RunResult result = heron({"-f", file, "-s", "t"});
  EXPECT_TRUE(same(result, "", kTableNameT, 0));
  EXPECT_NE(readFile(file).find("Region allocator statistics"), std::string::npos);
}

TEST_F(CliOutput, FullDeviceOnStandardOutputFails) {
  RunResult result = heronWith(full_, {"-a", "-e", "t"});
  EXPECT_TRUE(
      same(result, "", std::string(kTableNameT) + "Error writing standard output: No space left on device\n", 1));
}

TEST_F(CliOutput, DeviceAsOutputFileIsRefused) {
  for (const char* option : {"-s", "-R", "-q", "-a", "-w"}) {
    SCOPED_TRACE(option);
    EXPECT_TRUE(
        same(heron({"-f", "/dev/full", option, "t"}), "", std::string(kTableNameT) + "Error opening /dev/full\n", 1));
  }
  EXPECT_TRUE(same(heron({"-f", "/dev/full", "-A"}), "", "Error opening /dev/full\n", 1));
}

TEST_F(CliOutput, FifoAsOutputFileIsRefusedWithoutWaiting) {
  TempDir outside("heron-output");
  const std::string fifo = outside.path() + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  // Nobody reads the FIFO: an open for writing would wait for ever.
  EXPECT_TRUE(same(heron({"-f", fifo, "-s", "t"}), "", std::string(kTableNameT) + "Error opening " + fifo + "\n", 1));
  EXPECT_TRUE(same(heron({"-f", fifo, "-c", std::to_string(::getpid())}), "", "Error opening " + fifo + "\n", 1));
}

TEST_F(CliOutput, HardLinkToATableFileIsRefusedAndLeftWhole) {
  TempDir outside("heron-output");
  for (const char* name : {"t/relay.1", "t/owner", "t/quarry"}) {
    SCOPED_TRACE(name);
    const std::string file = root.file(name);
    const std::string before = readFile(file);
    ASSERT_FALSE(before.empty());
    const std::string link = outside.path() + "/out";
    ::unlink(link.c_str());
    ASSERT_EQ(::link(file.c_str(), link.c_str()), 0);
    // A relative name, from a directory outside the root.
    EXPECT_TRUE(same(heron({"-s", "-f", "out", "t"}, {}, outside.path()), "",
                     std::string(kTableNameT) + "Error opening out\n", 1));
    EXPECT_TRUE(same(heron({"-A", "-f", link}), "", "Error opening " + link + "\n", 1));
    EXPECT_EQ(readFile(file), before);
  }
}

TEST_F(CliOutput, HardLinkToAFileOfATableOutsideTheRootIsRefused) {
  TempRoot other;
  ASSERT_TRUE(other.create("u"));
  TempDir outside("heron-output");
  const std::string link = outside.path() + "/out";
  ASSERT_EQ(::link(other.file("u/relay.1").c_str(), link.c_str()), 0);
  const std::string before = readFile(link);
  // The table named by its full path: its directory is read, so protected.
  EXPECT_TRUE(same(heron({"-s", "-f", link, other.file("u")}), "",
                   "Table Name: " + other.file("u") + "\n\nError opening " + link + "\n", 1));
  EXPECT_EQ(readFile(link), before);
}

TEST_F(CliOutput, AnExistingFileIsReplacedByTheReport) {
  TempDir outside("heron-output");
  const std::string file = outside.path() + "/stats";
  std::string old;
  while (old.size() < 100000) {
    old += "old\n";
  }
  ASSERT_TRUE(writeFile(file, old));
  EXPECT_TRUE(same(heron({"-f", file, "-s", "t"}), "", kTableNameT, 0));
  const std::string written = readFile(file);
  EXPECT_EQ(written.find("old"), std::string::npos);
  EXPECT_NE(written.find("Region allocator statistics"), std::string::npos);
}

TEST_F(CliOutput, FailedWriteToTheOutputFileFailsWithOneLine) {
  TempDir outside("heron-output");
  const std::string file = outside.path() + "/out";
  // A file size limit of 0 with SIGXFSZ ignored: every write fails (EFBIG).
  ChildOptions noGrowth;
  noGrowth.noFileGrowth = true;
  auto limited = [this, &noGrowth](const std::vector<std::string>& args) { return heronWith(noGrowth, args); };
  const std::string tooLarge = "Error writing " + file + ": File too large\n";
  for (const char* option : {"-s", "-R", "-q", "-a", "-w"}) {
    SCOPED_TRACE(option);
    EXPECT_TRUE(same(limited({"-f", file, option, "t"}), "", std::string(kTableNameT) + tooLarge, 1));
  }
  EXPECT_TRUE(
      same(limited({"-f", file, "-A"}), ::getuid() == 0 ? "" : "You should run this command as root.\n", tooLarge, 1));
}

TEST_F(CliOutput, HelpThatCannotBeWrittenFails) {
  const std::string full = "Error writing standard output: No space left on device\n";
  EXPECT_TRUE(same(heronWith(full_, {"-h"}), "", full, 1));
  EXPECT_TRUE(same(heronWith(full_, {"--bogus"}), "", heronBin() + ": unrecognized option '--bogus'\n" + full, 1));
  EXPECT_TRUE(same(heronWith(closed_, {"--help"}), "", "Error writing standard output: Bad file descriptor\n", 1));
}

TEST_F(CliOutput, ClosedStandardOutputFailsEveryReport) {
  const std::string closed = "Error writing standard output: Bad file descriptor\n";
  for (const char* option : {"-s", "-d", "-R", "-q", "-a", "-w"}) {
    SCOPED_TRACE(option);
    EXPECT_TRUE(same(heronWith(closed_, {option, "t"}), "", std::string(kTableNameT) + closed, 1));
  }
  EXPECT_TRUE(same(heronWith(closed_, {"-A"}), "", closed, 1));
  EXPECT_TRUE(same(heronWith(closed_, {"-c", std::to_string(::getpid())}), "", closed, 1));
}

}  // namespace
}  // namespace HeronTest

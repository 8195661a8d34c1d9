// Table directories as the dump commands find and list them: any depth, and
// a directory that cannot be listed is said to be so.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "integration/CliSupport.h"
#include "support/TempDir.h"

namespace HeronTest {
namespace {

class TableDir : public CliTest {};

TEST_F(TableDir, TableSixtyLevelsDeepIsVisibleToTheDumpCommands) {
  std::string name;
  for (int level = 0; level < 59; ++level) {
    name += "d/";
  }
  name += "deep";
  ASSERT_TRUE(root.create(name));
  EXPECT_TRUE(same(heron({"d/"}), "", "Table Name: " + name + "\n\n", 0));
  RunResult stats = heron({"-s", name});
  EXPECT_EQ(stats.status, 0) << stats.err;
  EXPECT_EQ(stats.err, "Table Name: " + name + "\n\n");
  EXPECT_NE(stats.out.find("Region allocator statistics\n"), std::string::npos) << stats.out;
}

// heron as uid/gid 65534 on a table directory of mode 711: the files can be
// opened by name, the directory cannot be listed. The clone may live where
// that user cannot enter, so heron and its library are copied first.
class UnlistableTable : public CliTest {
 protected:
  void SetUp() override {
    if (::getuid() != 0 || ::access("/usr/bin/setpriv", X_OK) != 0) {
      GTEST_SKIP() << "needs root and setpriv to run heron as another user";
    }
    ASSERT_TRUE(root.create("t"));
    ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(root.file("t").c_str(), 0711), 0);
    ASSERT_EQ(::chmod(tools.path().c_str(), 0755), 0);
    ASSERT_TRUE(writeFile(tools.path() + "/heron", readFile(heronBin())));
    ASSERT_TRUE(writeFile(tools.path() + "/libheron.so.0", readFile(heronLib())));
    ASSERT_EQ(::chmod((tools.path() + "/heron").c_str(), 0755), 0);
  }

  RunResult heronAsNobody(const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                     tools.path() + "/heron"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env = root.env();
    env.push_back("LD_LIBRARY_PATH=" + tools.path());
    return run(argv, env);
  }

  TempDir tools{"heron-other-user"};
};

TEST_F(UnlistableTable, StatisticsSayTheDirectoryCannotBeListed) {
  RunResult result = heronAsNobody({"-s", "t"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Region allocator statistics\n  regions: cannot list " + root.file("t") +
                            ": Permission denied\n  allocations   0\n"),
            std::string::npos)
      << result.out << result.err;
  EXPECT_EQ(result.out.find("regions       0"), std::string::npos) << result.out;
}

TEST_F(UnlistableTable, RegionDumpSaysTheDirectoryCannotBeListed) {
  RunResult result = heronAsNobody({"-R", "t"});
  EXPECT_TRUE(same(result, "Region allocator: cannot list " + root.file("t") + ": Permission denied\n",
                   "Table Name: t\n\n", 0));
}

TEST_F(UnlistableTable, ChosenRegionIsOpenedByName) {
  RunResult result = heronAsNobody({"-r", "1", "t"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out.rfind("Region 1: entry size ", 0), 0U) << result.out;
}

TEST_F(UnlistableTable, ClientReportShowsTheRegionFiguresAsNotAvailable) {
  RunResult result = heronAsNobody({"-w", "t"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("numRegions:NA totalSize:NA pagesFree:NA occupancyRate:NA%\n"), std::string::npos)
      << result.out;
}

}  // namespace
}  // namespace HeronTest

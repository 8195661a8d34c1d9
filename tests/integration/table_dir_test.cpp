// Table directories as the dump commands find and list them: any depth, and
// a directory that cannot be listed is said to be so.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "integration/CliSupport.h"

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

}  // namespace
}  // namespace HeronTest

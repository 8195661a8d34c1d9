// Texts that come from table files or from the file system reach the
// terminal with their control characters escaped.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "integration/CliSupport.h"

namespace HeronTest {
namespace {

const char* const kHostile = "\x1b]0;pwned\x07\x1b[2J\n";
const char* const kEscaped = "\\x1b]0;pwned\\x07\\x1b[2J\\n";

class CliEscape : public CliTest {
 protected:
  void SetUp() override { ASSERT_TRUE(root.create("t")); }
};

TEST_F(CliEscape, OwnerTypeAndHostNamesAreEscaped) {
  std::string owner = readFile(root.file("t/owner"));
  ASSERT_EQ(owner.size(), 128U);
  const std::string hostile(kHostile);
  owner.replace(32, 32, hostile + std::string(32 - hostile.size(), '\0'));
  owner.replace(64, 64, hostile + std::string(64 - hostile.size(), '\0'));
  ASSERT_TRUE(writeFile(root.file("t/owner"), owner));
  RunResult result = heron({"-s", "t"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find(std::string("\tType name: ") + kEscaped + "\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find(std::string("\tHost: ") + kEscaped + "\n"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find('\x1b'), std::string::npos);
  EXPECT_EQ(result.out.find('\x07'), std::string::npos);
}

TEST_F(CliEscape, StyledRoadEscapesTheTypeName) {
  std::string owner = readFile(root.file("t/owner"));
  ASSERT_EQ(owner.size(), 128U);
  owner.replace(32, 32, std::string("a\x1b[2Jb") + std::string(32 - 6, '\0'));
  ASSERT_TRUE(writeFile(root.file("t/owner"), owner));
  EXPECT_TRUE(same(heron({"-j", "t"}), "", "Table Name: t\n\nNo knowledge of root type:a\\x1b[2Jb\n", 1));
}

TEST_F(CliEscape, TableNamesWithControlCharactersAreListedEscaped) {
  // Made by renaming: the runtime refuses to create such a name.
  const std::string odd = root.file("x\x1b[2J\ny");
  ASSERT_EQ(std::rename(root.file("t").c_str(), odd.c_str()), 0);
  ASSERT_TRUE(root.create("t"));
  EXPECT_TRUE(same(heron({}), "",
                   "More than one table was found. Try again using one of the following tables:\n"
                   "  - t\n"
                   "  - x\\x1b[2J\\ny\n",
                   1));
  RunResult one = heron({"-s", "x"});
  EXPECT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(one.err, "Table Name: x\\x1b[2J\\ny\n\n");
}

}  // namespace
}  // namespace HeronTest

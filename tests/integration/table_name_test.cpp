// heron-sim create refuses table names that the client reports could not
// attribute, and makes nothing for them.
#include <gtest/gtest.h>

#include <string>

#include "support/Run.h"

namespace HeronTest {
namespace {

TEST(TableName, SimCreateRefusesBlanksNewlinesAndControlCharacters) {
  TempRoot root;
  for (const char* name : {"a b", "a\nb", "x\x1b]0;pwned\x07"}) {
    SCOPED_TRACE(name);
    RunResult result = run({simBin(), "create", name}, root.env());
    EXPECT_EQ(result.status, 1) << result.describe();
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.rfind("heron-sim create: table name \"" + root.path() + "/", 0), 0U) << result.err;
    EXPECT_NE(result.err.find("client reports could not attribute the table"), std::string::npos) << result.err;
    EXPECT_FALSE(exists(root.file(name)));
  }
}

TEST(TableName, SimCreateAcceptsAPrintableNestedName) {
  TempRoot root;
  RunResult result = run({simBin(), "create", "md/eu/quotes-1"}, root.env());
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(exists(root.file("md/eu/quotes-1/owner")));
}

}  // namespace
}  // namespace HeronTest

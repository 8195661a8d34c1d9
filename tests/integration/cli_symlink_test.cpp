// Symbolic links in place of table files are never followed, and a file
// that fails validation never has its bytes printed as text.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "integration/CliSupport.h"
#include "support/TempDir.h"

namespace HeronTest {
namespace {

// 88 bytes that a link might lead to: text with control characters.
std::string secret() {
  std::string bytes = "SECRET\x1b]0;pwned\x07\x1b[2J\n";
  bytes.resize(4096, 'S');
  return bytes;
}

class CliSymlink : public CliTest {
 protected:
  void SetUp() override { ASSERT_TRUE(root.create("t")); }

  // Replaces the table file `name` with a link to `target`.
  void link(const std::string& name, const std::string& target) const {
    const std::string path = root.file("t/" + name);
    ASSERT_EQ(::unlink(path.c_str()), 0) << name;
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0) << name;
  }

  // Replaces table file `name` by a link to a byte-for-byte copy outside.
  void linkToACopy(const std::string& name) const {
    const std::string copy = outside.path() + "/" + name;
    ASSERT_TRUE(writeFile(copy, readFile(root.file("t/" + name))));
    link(name, copy);
  }

  TempDir outside{"heron-link-target"};
};

TEST_F(CliSymlink, RelayLinkedToAnotherFileIsNotOpened) {
  const std::string target = outside.path() + "/secret";
  ASSERT_TRUE(writeFile(target, secret()));
  link("relay.1", target);
  EXPECT_TRUE(same(heron({"-s", "t"}), "", std::string(kTableNameT) + "Failed to initialize RelayReaderGeneric\n", 1));
}

TEST_F(CliSymlink, RegionLinkedToAValidCopyIsNotARegularFile) {
  ASSERT_NO_FATAL_FAILURE(linkToACopy("region.1"));
  RunResult result = heron({"-r", "1", "t"});
  EXPECT_TRUE(same(result, "Region 1: not a regular file; skipped\n", kTableNameT, 0));
}

TEST_F(CliSymlink, AllocatorLinkedToAValidCopyIsRefused) {
  ASSERT_NO_FATAL_FAILURE(linkToACopy("quarry"));
  EXPECT_TRUE(same(heron({"-s", "t"}), "", std::string(kTableNameT) + "Failed to initialize QuarryScanner\n", 1));
}

TEST_F(CliSymlink, OwnerLinkedToAValidCopyMakesNoTable) {
  ASSERT_NO_FATAL_FAILURE(linkToACopy("owner"));
  EXPECT_TRUE(same(heron({"-s", "t"}), "", "No table was found in " + root.path() + "\n", 1));
}

TEST_F(CliSymlink, BadMagicIsShownInHexadecimalOnly) {
  std::string bytes = readFile(root.file("t/relay.2"));
  const std::string magic = "\x1b]0;pw\x07\n";
  bytes.replace(0, 8, magic);
  ASSERT_TRUE(writeFile(root.file("t/relay.2"), bytes));
  RunResult result = heron({"-s", "t"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, std::string(kTableNameT) + "Relay " + root.file("t") +
                            " validation failed: bad magic 0xa0777703b305d1b, expected 0x59414c45524e5248 "
                            "(\"HRNRELAY\")\nFailed to initialize RelayReaderGeneric\n");
}

}  // namespace
}  // namespace HeronTest

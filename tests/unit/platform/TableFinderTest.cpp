#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "Mem/TableFinder.h"
#include "SharedMem/OwnerFile.h"
#include "support/Handler.h"
#include "support/Run.h"

namespace {

using Names = std::vector<std::string>;

using HeronTest::quietHandler;

void makeDirs(const std::string& path) {
  for (std::size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    ::mkdir(path.substr(0, at).c_str(), 0755);
    if (at == std::string::npos) {
      break;
    }
  }
}

void makeTable(const HeronTest::TempRoot& root, const std::string& name,
               SharedMem::SharedMemType type = SharedMem::Table) {
  makeDirs(root.file(name));
  std::string error;
  ASSERT_TRUE(SharedMem::OwnerFile::create(Mem::RootPath(root.file(name)), type, "HeronTable", {1, 0}, error)) << error;
}

Names find(const HeronTest::TempRoot& root, const char* expr, SharedMem::SharedMemType kind = SharedMem::Table) {
  Mem::TableFinder finder(quietHandler(), Mem::RootPath(root.path()));
  finder.find(expr, kind);
  return finder.matches();
}

class TableFinderTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"tab2", "tab", "b", "a", "B", "table/x", "md/eu/quotes", "xtab"}) {
      makeTable(root, name);
    }
  }
  HeronTest::TempRoot root;
};

TEST_F(TableFinderTest, EmptyExprListsEveryTableInByteOrder) {
  EXPECT_EQ(find(root, ""), (Names{"B", "a", "b", "md/eu/quotes", "tab", "tab2", "table/x", "xtab"}));
}

TEST_F(TableFinderTest, NullExprListsEveryTable) { EXPECT_EQ(find(root, nullptr).size(), 8U); }

TEST_F(TableFinderTest, ByteOrderPutsHighBytesLast) {
  makeTable(root, "\xc3\xa9t\xc3\xa9");
  makeTable(root, "zz");
  Names all = find(root, "");
  ASSERT_EQ(all.size(), 10U);
  EXPECT_EQ(all[8], "zz");
  EXPECT_EQ(all[9], "\xc3\xa9t\xc3\xa9");
}

TEST_F(TableFinderTest, PlainExprMatchesNamesBeginningWithIt) {
  EXPECT_EQ(find(root, "tab"), (Names{"tab", "tab2", "table/x"}));
  EXPECT_EQ(find(root, "md/eu"), (Names{"md/eu/quotes"}));
  EXPECT_EQ(find(root, "nope"), Names{});
}

TEST_F(TableFinderTest, PlainExprIsCaseSensitive) { EXPECT_EQ(find(root, "b"), (Names{"b"})); }

TEST_F(TableFinderTest, GlobStarCrossesSlash) {
  EXPECT_EQ(find(root, "md*quotes"), (Names{"md/eu/quotes"}));
  EXPECT_EQ(find(root, "*x"), (Names{"table/x"}));
}

TEST_F(TableFinderTest, GlobIsAnchoredAtBothEnds) { EXPECT_EQ(find(root, "tab*"), (Names{"tab", "tab2", "table/x"})); }

TEST_F(TableFinderTest, GlobQuestionMarkAndBracket) {
  EXPECT_EQ(find(root, "tab?"), (Names{"tab2"}));
  EXPECT_EQ(find(root, "[ab]"), (Names{"a", "b"}));
}

TEST_F(TableFinderTest, AbsolutePathInsideRootIsMadeRelative) {
  EXPECT_EQ(find(root, root.file("tab").c_str()), (Names{"tab", "tab2", "table/x"}));
  EXPECT_EQ(find(root, root.file("md/eu/quotes").c_str()), (Names{"md/eu/quotes"}));
}

TEST_F(TableFinderTest, AbsoluteGlobInsideRootIsMadeRelative) {
  EXPECT_EQ(find(root, root.file("t*x").c_str()), (Names{"table/x"}));
}

TEST_F(TableFinderTest, AbsolutePathOutsideRootNamesItselfWhenATable) {
  HeronTest::TempRoot other;
  makeTable(other, "elsewhere");
  std::string path = other.file("elsewhere");
  EXPECT_EQ(find(root, path.c_str()), (Names{path}));
  EXPECT_EQ(find(root, other.path().c_str()), Names{});
}

TEST_F(TableFinderTest, OnlyTablesOfTheKindAsked) {
  makeTable(root, "seg", SharedMem::Segment);
  makeTable(root, "arc", SharedMem::Archive);
  EXPECT_EQ(find(root, "seg"), Names{});
  EXPECT_EQ(find(root, "", SharedMem::Segment), (Names{"seg"}));
  EXPECT_EQ(find(root, "", SharedMem::Archive), (Names{"arc"}));
}

TEST_F(TableFinderTest, DirectoryWithoutOwnerIsNotATableButIsSearched) {
  makeDirs(root.file("empty/dir"));
  EXPECT_EQ(find(root, "empty"), Names{});
  EXPECT_EQ(find(root, "md"), (Names{"md/eu/quotes"}));
}

TEST_F(TableFinderTest, UnreadableOwnerIsNotATable) {
  makeDirs(root.file("short"));
  ASSERT_TRUE(HeronTest::writeFile(root.file("short/owner"), "HRNOWNER"));
  EXPECT_EQ(find(root, "short"), Names{});
}

TEST_F(TableFinderTest, TablesNestedInTablesAreListed) {
  makeTable(root, "tab/inner");
  EXPECT_EQ(find(root, "tab/"), (Names{"tab/inner"}));
}

TEST_F(TableFinderTest, SymlinkedDirectoriesAreNotFollowed) {
  ASSERT_EQ(::symlink(root.file("md").c_str(), root.file("link").c_str()), 0);
  EXPECT_EQ(find(root, "link"), Names{});
  EXPECT_EQ(find(root, "*quotes"), (Names{"md/eu/quotes"}));
}

TEST_F(TableFinderTest, FindReplacesEarlierMatches) {
  Mem::TableFinder finder(quietHandler(), Mem::RootPath(root.path()));
  finder.find("tab", SharedMem::Table);
  finder.find("xtab", SharedMem::Table);
  EXPECT_EQ(finder.matches(), (Names{"xtab"}));
}

TEST(TableFinder, MissingRootFindsNothing) {
  Mem::TableFinder finder(quietHandler(), Mem::RootPath("/nonexistent/heron/root"));
  finder.find("", SharedMem::Table);
  EXPECT_TRUE(finder.matches().empty());
}

}  // namespace

namespace {

TEST_F(TableFinderTest, AbsoluteRootItselfListsEveryTable) {
  EXPECT_EQ(find(root, root.path().c_str()).size(), 8U);
  EXPECT_EQ(find(root, (root.path() + "/").c_str()).size(), 8U);
}

}  // namespace

TEST_F(TableFinderTest, FindOwnedListsDirectoriesWhoseOwnerFileIsDamagedOrOfAnyType) {
  makeDirs(root.file("garbage"));
  {
    FILE* file = std::fopen(root.file("garbage/owner").c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fputs("not an owner file", file);
    std::fclose(file);
  }
  makeTable(root, "seg", SharedMem::Segment);
  makeDirs(root.file("empty/dir"));
  Mem::TableFinder finder(quietHandler(), Mem::RootPath(root.path()));
  finder.findOwned("");
  EXPECT_EQ(finder.matches(),
            (Names{"B", "a", "b", "garbage", "md/eu/quotes", "seg", "tab", "tab2", "table/x", "xtab"}));
  finder.findOwned("g*");
  EXPECT_EQ(finder.matches(), (Names{"garbage"}));
  // find() afterwards reads owner files again.
  finder.find("", SharedMem::Table);
  EXPECT_EQ(finder.matches().size(), 8U);
}

TEST_F(TableFinderTest, FindOwnedIgnoresAnOwnerThatIsNotARegularFile) {
  makeDirs(root.file("fifo"));
  ASSERT_EQ(::mkfifo(root.file("fifo/owner").c_str(), 0644), 0);
  Mem::TableFinder finder(quietHandler(), Mem::RootPath(root.path()));
  finder.findOwned("fi");
  EXPECT_EQ(finder.matches(), Names{});
}

namespace {

// visit() as a list: each name with its listing, sorted by name.
struct Visited {
  std::string name;
  bool listed;
  Names entries;  // sorted
};

std::vector<Visited> visit(const HeronTest::TempRoot& root, const char* expr,
                           SharedMem::SharedMemType kind = SharedMem::Table) {
  Mem::TableFinder finder(quietHandler(), Mem::RootPath(root.path()));
  std::vector<Visited> seen;
  finder.visit(expr, kind, [&seen](const std::string& name, const Mem::TableFinder::Listing* entries) {
    Visited one{name, entries != nullptr, entries != nullptr ? *entries : Names{}};
    std::sort(one.entries.begin(), one.entries.end());
    seen.push_back(one);
  });
  std::sort(seen.begin(), seen.end(), [](const Visited& a, const Visited& b) { return a.name < b.name; });
  return seen;
}

Names namesOf(const std::vector<Visited>& seen) {
  Names names;
  for (const Visited& one : seen) {
    names.push_back(one.name);
  }
  return names;
}

TEST(TableFinder, NameMatchesAsFindDoes) {
  EXPECT_TRUE(Mem::TableFinder::nameMatches("", "any/name"));
  EXPECT_TRUE(Mem::TableFinder::nameMatches("tab", "table/x"));
  EXPECT_FALSE(Mem::TableFinder::nameMatches("tab", "xtab"));
  EXPECT_TRUE(Mem::TableFinder::nameMatches("md*quotes", "md/eu/quotes"));
  EXPECT_FALSE(Mem::TableFinder::nameMatches("tab?", "tab"));
}

TEST_F(TableFinderTest, VisitMeetsTheTablesThatFindLists) {
  for (const char* expr : {"", "tab", "md*quotes", "[ab]", "nope"}) {
    EXPECT_EQ(namesOf(visit(root, expr)), find(root, expr)) << expr;
  }
  const std::string inside = root.file("tab");
  EXPECT_EQ(namesOf(visit(root, inside.c_str())), find(root, inside.c_str()));
  makeTable(root, "seg", SharedMem::Segment);
  EXPECT_EQ(namesOf(visit(root, "", SharedMem::Segment)), (Names{"seg"}));
}

TEST_F(TableFinderTest, VisitOwnedMeetsTheDirectoriesThatFindOwnedLists) {
  makeDirs(root.file("garbage"));
  ASSERT_TRUE(HeronTest::writeFile(root.file("garbage/owner"), "not an owner file"));
  makeTable(root, "seg", SharedMem::Segment);
  Mem::TableFinder finder(quietHandler(), Mem::RootPath(root.path()));
  for (const char* expr : {"", "g*", "s", "md"}) {
    finder.findOwned(expr);
    const Names listed = finder.matches();
    Names seen;
    finder.visitOwned(expr, [&seen](const std::string& name, const Mem::TableFinder::Listing* entries) {
      EXPECT_NE(entries, nullptr) << name;
      seen.push_back(name);
    });
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, listed) << expr;
  }
}

TEST_F(TableFinderTest, VisitHandsEachTableTheEntriesOfItsDirectory) {
  ASSERT_TRUE(HeronTest::writeFile(root.file("md/eu/quotes/region.7"), "x"));
  ASSERT_EQ(::symlink("/etc/passwd", root.file("md/eu/quotes/relay.1").c_str()), 0);
  std::vector<Visited> seen = visit(root, "md");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_TRUE(seen[0].listed);
  EXPECT_EQ(seen[0].entries, (Names{"owner", "region.7", "relay.1"}));
  // A table holding a table lists its subdirectory as well.
  makeTable(root, "tab/inner");
  seen = visit(root, "tab/");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].entries, (Names{"owner"}));
  seen = visit(root, "tab");
  ASSERT_EQ(namesOf(seen), (Names{"tab", "tab/inner", "tab2", "table/x"}));
  EXPECT_EQ(seen[0].entries, (Names{"inner", "owner"}));
}

TEST_F(TableFinderTest, VisitOfATableOutsideTheRootHasNoListing) {
  HeronTest::TempRoot other;
  makeTable(other, "elsewhere");
  const std::string path = other.file("elsewhere");
  std::vector<Visited> seen = visit(root, path.c_str());
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].name, path);
  EXPECT_FALSE(seen[0].listed);
}

TEST_F(TableFinderTest, VisitOfATableWhoseDirectoryCannotBeListedHasNoListing) {
  if (::geteuid() == 0) {
    GTEST_SKIP() << "root lists any directory";
  }
  ASSERT_EQ(::chmod(root.file("xtab").c_str(), 0311), 0);
  std::vector<Visited> seen = visit(root, "xtab");
  ::chmod(root.file("xtab").c_str(), 0755);
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_FALSE(seen[0].listed);
}

}  // namespace

// The who / who-all / what reports over a fake process table and a temporary
// collection whose tables have owner files but no readable queue or
// allocator files, so every header prints "NA".
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "SharedMem/OwnerFile.h"
#include "support/ReportText.h"
#include "unit/client/ChildOutput.h"
#include "unit/client/FakeProc.h"

namespace {

using HeronTest::FakeProc;
using HeronTest::mapsLine;

using HeronTest::kNoHeader;
constexpr const char* kNoReaders =
    "cannot populate heron table from quarry reader\n"
    "cannot populate heron table from relay reader\n";

class ReportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* previous = std::getenv("HERON_ROOT");
    hadRoot_ = previous != nullptr;
    if (hadRoot_) {
      savedRoot_ = previous;
    }
    ::setenv("HERON_ROOT", collection.path().c_str(), 1);
    ::unsetenv("Q7_CHROOT");
    root = Mem::canonical(collection.path());
  }
  void TearDown() override {
    if (hadRoot_) {
      ::setenv("HERON_ROOT", savedRoot_.c_str(), 1);
    } else {
      ::unsetenv("HERON_ROOT");
    }
  }

  void makeTable(const std::string& name, SharedMem::SharedMemType type = SharedMem::Table) {
    std::string dir = collection.path() + "/" + name;
    std::error_code made;
    std::filesystem::create_directories(dir, made);
    ASSERT_FALSE(made) << dir << ": " << made.message();
    std::string error;
    ASSERT_TRUE(SharedMem::OwnerFile::create(Mem::RootPath(dir), type, "HeronTable", SharedMem::EmberId{1, 0}, error))
        << error;
  }

  Mem::OrbRootPath collectionRoot() const { return Mem::OrbRootPath(HeronTest::scannerHandler(), "", false); }

  HeronTest::TempDir collection;
  FakeProc proc;
  std::string root;
  std::ostringstream out;

 private:
  bool hadRoot_ = false;
  std::string savedRoot_;
};

TEST_F(ReportsTest, WhoListsWriterAndShadowsSortedByPid) {
  makeTable("orders");
  const std::string t = root + "/orders";
  proc.addProcess("300", mapsLine("r--s", t + "/relay.1") + mapsLine("r--s", t + "/ember"), "/usr/bin/view",
                  std::string("view\0-v", 7));
  proc.addProcess("100", mapsLine("rw-s", t + "/relay.1") + mapsLine("rw-s", t + "/ember"), "/usr/bin/feed",
                  "/opt/feed");
  proc.addProcess("200", mapsLine("r--s", t + "/ember"), "/usr/bin/view", "./view");
  proc.addProcess("400", mapsLine("r--s", root + "/other/relay.1"), "/usr/bin/view", "view");
  Mem::OrbRootPath tableRoot(HeronTest::scannerHandler(), "orders", false);
  Heron::HeronClientScanner scanner(&out, tableRoot, "orders", proc.root());
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.doGetClientInfo(false), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kNoReaders);
  EXPECT_EQ(out.str(), "Heron table \"" + t + "\"\n" + kNoHeader +
                           "Writer: feed-100(feed)\n"
                           "Shadow: view-200(view) view-300(view)\n\n");
}

TEST_F(ReportsTest, WhoWithJsonFailsAfterGatheringAndPrintsNoReport) {
  makeTable("orders");
  proc.addProcess("100", mapsLine("rw-s", root + "/orders/relay.1"), "/usr/bin/feed", "feed");
  Mem::OrbRootPath tableRoot(HeronTest::scannerHandler(), "orders", false);
  Heron::HeronClientScanner scanner(&out, tableRoot, "orders", proc.root());
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.doGetClientInfo(true), 1);
  // The header lookup of the gathering step ran before the refusal.
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            std::string(kNoReaders) + "JSON client printing is not supported yet.\n");
  EXPECT_EQ(out.str(), "");
}

TEST_F(ReportsTest, WhoAsOtherUserWarnsTwiceBeforeTheReport) {
  makeTable("orders");
  proc.addProcess("100", mapsLine("rw-s", root + "/orders/relay.1"), "/usr/bin/feed", "feed");
  ::chmod(proc.root().c_str(), 0755);
  ::chmod(collection.path().c_str(), 0755);
  const int uid = ::getuid() == 0 ? 65534 : -1;
  const std::string procRoot = proc.root();
  auto result = HeronTest::runInChild(uid, [&procRoot] {
    Mem::OrbRootPath tableRoot(HeronTest::scannerHandler(), "orders", false);
    Heron::HeronClientScanner scanner(&std::cout, tableRoot, "orders", procRoot);
    return scanner.doGetClientInfo(false);
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "You should run this command as root.\nYou should run this command as root.\nHeron table \"" +
                            root + "/orders\"\n" + kNoHeader + "Writer: feed-100(feed)\n\n");
}

TEST_F(ReportsTest, WhoAllWithNoTablesPrintsNoHerons) {
  Heron::HeronClientScanner scanner(&out, collectionRoot(), "", proc.root());
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.doGetAllClientInfo(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(out.str(), "No Herons\n\n");
}

TEST_F(ReportsTest, WhoAllDropsClientlessTableWithMissingHeader) {
  makeTable("idle");
  Heron::HeronClientScanner scanner(&out, collectionRoot(), "", proc.root());
  HeronTest::TraceMask mask(0x20);
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.doGetAllClientInfo(), 0);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Suppressing clientless heron idle with missing header info"), std::string::npos) << err;
  EXPECT_EQ(out.str(), "No Herons\n\n");
}

TEST_F(ReportsTest, WhoAllListsTablesByNameWithTheirClients) {
  makeTable("b");
  makeTable("a/x");
  makeTable("seg", SharedMem::Segment);
  proc.addProcess("10", mapsLine("rw-s", root + "/b/relay.1") + mapsLine("r--s", root + "/a/x/ember"), "/usr/bin/feed",
                  "feed");
  proc.addProcess("11", mapsLine("r--s", root + "/b/ember") + mapsLine("r--s", root + "/seg/relay.1"), "/usr/bin/view",
                  "view");
  Heron::HeronClientScanner scanner(&out, collectionRoot(), "", proc.root());
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.doGetAllClientInfo(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(kNoReaders) + kNoReaders);
  EXPECT_EQ(out.str(), std::string("Heron table \"a/x\"\n") + kNoHeader +
                           "Shadow: feed-10(feed)\n\n"
                           "Heron table \"b\"\n" +
                           kNoHeader +
                           "Writer: feed-10(feed)\n"
                           "Shadow: view-11(view)\n\n");
}

TEST_F(ReportsTest, WhoAllKeepsTableOfUnknownTypeAndFullPathOutsideRoot) {
  HeronTest::TempDir elsewhere;
  const std::string outside = Mem::canonical(elsewhere.path());
  proc.addProcess("10", mapsLine("r--s", outside + "/relay.1"), "/usr/bin/view", "view");
  Heron::HeronClientScanner scanner(&out, collectionRoot(), "", proc.root());
  HeronTest::TraceMask mask(0x20);
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.doGetAllClientInfo(), 0);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Heron table:" + outside + " created in a different directory, current rootPath:" + root +
                     ". Header information will not be extracted."),
            std::string::npos)
      << err;
  EXPECT_NE(err.find("SharedMem table:" + outside + " lookup found table type:0"), std::string::npos) << err;
  EXPECT_EQ(out.str(), "Heron table \"" + outside + "\"\n" + kNoHeader + "Shadow: view-10(view)\n\n");
}

TEST_F(ReportsTest, WhoAllNamesAnOutsideTableWhosePathContainsTheRootByCuttingTheRootsLength) {
  // A prefix as long as the root: what is left is the root without its
  // leading slash, then the table (/tmp/adv/fake/dev/shm/advS/s1 with the
  // root /dev/shm/advS gives dev/shm/advS/s1).
  const std::string prefix = "/" + std::string(root.size() - 1, 'p');
  proc.addProcess("10", mapsLine("r--s", prefix + root + "/s1/relay.1"), "/usr/bin/view", "view");
  // A shorter prefix: the cut still counts the root's length from the front.
  proc.addProcess("11", mapsLine("r--s", "/q" + root + "/s2/ember"), "/usr/bin/view", "view");
  Heron::HeronClientScanner scanner(&out, collectionRoot(), "", proc.root());
  HeronTest::TraceMask mask(0x20);
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.doGetAllClientInfo(), 0);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.find("created in a different directory"), std::string::npos) << err;
  const std::string first = root.substr(1) + "/s1";
  const std::string second = ("/q" + root + "/s2").substr(root.size() + 1);
  EXPECT_EQ(second, root.substr(root.size() - 1) + "/s2");  // "/q" is one character longer than the separator
  EXPECT_NE(err.find("SharedMem table:" + first + " lookup found table type:0"), std::string::npos) << err;
  std::vector<std::string> blocks{"Heron table \"" + first + "\"\n" + kNoHeader + "Shadow: view-10(view)\n\n",
                                  "Heron table \"" + second + "\"\n" + kNoHeader + "Shadow: view-11(view)\n\n"};
  if (second < first) {
    std::swap(blocks[0], blocks[1]);
  }
  EXPECT_EQ(out.str(), blocks[0] + blocks[1]);
}

TEST_F(ReportsTest, WhatForUnattachedPidPrintsBothHeadingsOnly) {
  makeTable("orders");
  proc.addProcess("10", mapsLine("rw-s", root + "/orders/relay.1"), "/usr/bin/feed", "feed");
  Heron::HeronClientScanner scanner(&out, collectionRoot(), "", proc.root());
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.doGetTableInfo(4711), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(out.str(),
            "Tables with client ( pid: 4711 ) of Type Writer:\n"
            "Tables with client ( pid: 4711 ) of Type Shadow:\n");
}

TEST_F(ReportsTest, WhatPrintsTableUnderEachRoleOfThePid) {
  makeTable("orders");
  makeTable("quotes");
  proc.addProcess("10",
                  mapsLine("rw-s", root + "/orders/relay.1") + mapsLine("r--s", root + "/orders/ember") +
                      mapsLine("r--s", root + "/quotes/ember"),
                  "/usr/bin/feed", "feed");
  Heron::HeronClientScanner scanner(&out, collectionRoot(), "", proc.root());
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.doGetTableInfo(10), 0);
  testing::internal::GetCapturedStderr();
  const std::string orders = std::string("Heron table \"orders\"\n") + kNoHeader +
                             "Writer: feed-10(feed)\n"
                             "Shadow: feed-10(feed)\n\n";
  const std::string quotes = std::string("Heron table \"quotes\"\n") + kNoHeader + "Shadow: feed-10(feed)\n\n";
  EXPECT_EQ(out.str(), "Tables with client ( pid: 10 ) of Type Writer:\n" + orders +
                           "Tables with client ( pid: 10 ) of Type Shadow:\n" + orders + quotes);
}

TEST_F(ReportsTest, WhatWithNoTablesPrintsNoHerons) {
  Heron::HeronClientScanner scanner(&out, collectionRoot(), "", proc.root());
  EXPECT_EQ(scanner.doGetTableInfo(10), 0);
  EXPECT_EQ(out.str(), "No Herons\n");
}

TEST_F(ReportsTest, SecondWriterIsListedNowhere) {
  makeTable("orders");
  proc.addProcess("10", mapsLine("rw-s", root + "/orders/relay.1"), "/usr/bin/feed", "feed");
  proc.addProcess("11", mapsLine("rw-s", root + "/orders/relay.1"), "/usr/bin/feed2", "feed2");
  Heron::HeronClientScanner scanner(&out, collectionRoot(), "", proc.root());
  std::set<Heron::Model::HeronTable> tables;
  testing::internal::CaptureStderr();
  EXPECT_EQ(scanner.getAllClients(tables), 0);
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(tables.size(), 1U);
  const auto& table = *tables.begin();
  EXPECT_EQ(table.clients.at(Heron::Writer).size(), 1U);
  EXPECT_TRUE(table.clients.at(Heron::Shadow).empty());
}

}  // namespace

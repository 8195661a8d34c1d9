#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "SharedMem/TableClients.h"
#include "support/Run.h"
#include "support/TempDir.h"

namespace {

// A fake /proc: each process a directory with a maps file and, unless it is
// to look gone, an exe link; namespace data when given.
class FakeProc {
 public:
  void add(int pid, const std::string& maps, bool exe = true, const std::string& nsPid = "") {
    const std::string dir = root_.path() + "/" + std::to_string(pid);
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    ASSERT_TRUE(HeronTest::writeFile(dir + "/maps", maps));
    if (exe) {
      ASSERT_EQ(::symlink("/usr/bin/feed", (dir + "/exe").c_str()), 0);
    }
    if (!nsPid.empty()) {
      ASSERT_TRUE(HeronTest::writeFile(dir + "/status", "Name:\tfeed\nState:\tS (sleeping)\nPid:\t" +
                                                            std::to_string(pid) + "\nNSpid:\t" + nsPid + "\n"));
      ASSERT_EQ(::mkdir((dir + "/ns").c_str(), 0755), 0);
      ASSERT_EQ(::symlink("pid:[4026532001]", (dir + "/ns/pid").c_str()), 0);
    }
  }
  SharedMem::MappingWalk walk(bool namespaces = false) const {
    SharedMem::MappingWalk walk;
    walk.procRoot = root_.path();
    walk.namespaces = namespaces;
    return walk;
  }

 private:
  HeronTest::TempDir root_{"table-clients"};
};

std::string line(const std::string& permissions, const std::string& path) {
  return "7f0000000000-7f0000001000 " + permissions + " 00000000 00:1a 42                         " + path + "\n";
}

}  // namespace

TEST(TableClientsTest, GroupsTheMappingsOfTableFilesByDirectory) {
  FakeProc proc;
  proc.add(100,
           line("rw-s", "/r/orders/relay.1") + line("r--p", "/usr/lib/libc.so.6") + line("rw-s", "/r/orders/ember"));
  proc.add(200, line("r--s", "/r/orders/relay.1") + line("r--s", "/r/md/eu/ember"));
  proc.add(300, line("r--s", "/r/orders/relay.2") + line("r--s", "/r/orders/relay.1x"));
  const SharedMem::TableMappings mapped = SharedMem::findTableMappings(proc.walk());
  ASSERT_EQ(mapped.size(), 2U);
  const auto& orders = mapped.at("/r/orders");
  ASSERT_EQ(orders.size(), 3U);
  int readWrite = 0;
  for (const SharedMem::TableMapping& mapping : orders) {
    readWrite += mapping.readWrite ? 1 : 0;
    EXPECT_EQ(mapping.readWrite, mapping.pid == 100);
  }
  EXPECT_EQ(readWrite, 2);
  ASSERT_EQ(mapped.at("/r/md/eu").size(), 1U);
  EXPECT_TRUE(mapped.at("/r/md/eu").front().ember);
  EXPECT_EQ(mapped.at("/r/md/eu").front().innermostPid, 0U);
}

TEST(TableClientsTest, AProcessWithoutAnExecutableLinkContributesNothing) {
  FakeProc proc;
  proc.add(100, line("rw-s", "/r/orders/relay.1"), false);
  EXPECT_TRUE(SharedMem::findTableMappings(proc.walk()).empty());
}

TEST(TableClientsTest, NamespaceDataIsReadWhenAskedFor) {
  FakeProc proc;
  proc.add(4711, line("rw-s", "/r/orders/relay.1"), true, "4711\t1");
  const SharedMem::TableMappings mapped = SharedMem::findTableMappings(proc.walk(true));
  const SharedMem::TableMapping& mapping = mapped.at("/r/orders").front();
  EXPECT_EQ(mapping.pid, 4711);
  EXPECT_EQ(mapping.innermostPid, 1U);
  EXPECT_EQ(mapping.pidNamespace, 4026532001U);
}

TEST(TableClientsTest, TheFirstReadWriteMappingIsTheOneWriterAndShadowsComeOnce) {
  const std::vector<SharedMem::TableMapping> mappings = {{300, false, false}, {100, true, false}, {200, true, false},
                                                         {300, false, true},  {100, false, true}, {999, false, false}};
  const SharedMem::TableClients clients = SharedMem::tableClients(mappings, 999);
  EXPECT_EQ(clients.writers, std::vector<int>({100}));
  EXPECT_EQ(clients.shadows, std::vector<int>({300, 100}));
}

TEST(TableClientsTest, PermissionsAllowWritingOnlyWithReadAndWrite) {
  EXPECT_TRUE(SharedMem::mapsForWriting("rw-s"));
  EXPECT_FALSE(SharedMem::mapsForWriting("r--s"));
  EXPECT_FALSE(SharedMem::mapsForWriting("-w-s"));
  EXPECT_FALSE(SharedMem::mapsForWriting(""));
}

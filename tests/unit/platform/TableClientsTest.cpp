#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "SharedMem/TableClients.h"
#include "support/Child.h"
#include "support/Run.h"
#include "support/TempDir.h"

namespace {

// A fake /proc: each process a directory with a maps file and, unless it is
// to look gone, an exe link; namespace data when given.
class FakeMapsProc {
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
  FakeMapsProc proc;
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
  FakeMapsProc proc;
  proc.add(100, line("rw-s", "/r/orders/relay.1"), false);
  EXPECT_TRUE(SharedMem::findTableMappings(proc.walk()).empty());
}

TEST(TableClientsTest, NamespaceDataIsReadWhenAskedFor) {
  FakeMapsProc proc;
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

namespace {

// A file of one page to map, in a directory made when missing.
std::string pageFile(const std::string& dir, const std::string& name) {
  ::mkdir(dir.c_str(), 0755);
  const std::string path = dir + "/" + name;
  EXPECT_TRUE(HeronTest::writeFile(path, std::string(4096, 'x')));
  return path;
}

struct Mapped {
  std::string path;
  bool readWrite = false;
  bool unlink = false;  // removed once mapped
};

// A child process that maps `files` in order and stays up.
std::unique_ptr<HeronTest::Child> mapper(const std::vector<Mapped>& files) {
  auto child = std::make_unique<HeronTest::Child>([files] {
    for (const Mapped& file : files) {
      const int fd = ::open(file.path.c_str(), file.readWrite ? O_RDWR : O_RDONLY);
      const int protection = file.readWrite ? PROT_READ | PROT_WRITE : PROT_READ;
      if (fd < 0 || ::mmap(nullptr, 4096, protection, MAP_SHARED, fd, 0) == MAP_FAILED) {
        return 1;
      }
      ::close(fd);
      if (file.unlink && ::unlink(file.path.c_str()) != 0) {
        return 1;
      }
    }
    if (::write(1, "ready\n", 6) != 6) {
      return 1;
    }
    for (;;) {
      ::pause();
    }
  });
  EXPECT_TRUE(child->waitForLines(1)) << child->err();
  return child;
}

// The mappings of processes `pids` only: (pid, readWrite, ember) in the
// order found, by directory.
using SeenMappings = std::map<std::string, std::vector<std::tuple<int, bool, bool>>>;
SeenMappings seenOf(const SharedMem::TableMappings& mapped, const std::set<int>& pids) {
  SeenMappings seen;
  for (const auto& group : mapped) {
    for (const SharedMem::TableMapping& mapping : group.second) {
      if (pids.count(mapping.pid) != 0) {
        seen[group.first].emplace_back(mapping.pid, mapping.readWrite, mapping.ember);
      }
    }
  }
  return seen;
}

std::uint64_t deviceOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0);
  return static_cast<std::uint64_t>(st.st_dev);
}

SharedMem::MappingWalk onDevices(const std::vector<std::uint64_t>& devices, bool refuseQuery = false) {
  SharedMem::MappingWalk walk;
  walk.devices = devices;
  walk.refuseQuery = refuseQuery;
  return walk;
}

}  // namespace

// Named for the lock the mappers take: these children map files named
// relay.1 that are no tables.
TEST(TableClientsWalkTest, TheQueryFindsWhatTheTextShows) {
  HeronTest::TempDir dir("walk");
  const std::string orders = dir.file("orders");
  const auto first = mapper({{pageFile(orders, "relay.1"), false}, {pageFile(orders, "ember"), true}});
  const auto second = mapper({{pageFile(orders, "relay.1"), true},
                              {pageFile(dir.file("a b"), "relay.1"), false},
                              {pageFile(dir.file("gone"), "relay.1"), false, true},
                              {pageFile(dir.file("new\nline"), "relay.1"), false},
                              {pageFile(dir.file("plain"), "relay.1"), false},
                              {pageFile(orders, "ember"), false}});
  const std::set<int> pids = {first->pid(), second->pid()};

  const SeenMappings text = seenOf(SharedMem::findTableMappings(), pids);
  const SeenMappings queried = seenOf(SharedMem::findTableMappings(onDevices({deviceOf(dir.path())})), pids);
  EXPECT_EQ(queried, text);
  ASSERT_EQ(text.count(orders), 1U);
  EXPECT_EQ(text.at(orders).size(), 4U);
  EXPECT_EQ(text.count(dir.file("gone")), 1U);
  EXPECT_EQ(text.count(dir.file("new\\012line")), 1U);
  EXPECT_EQ(text.count(dir.file("plain")), 1U);
  EXPECT_EQ(text.size(), 4U);  // "a b" is cut at its blank
}

TEST(TableClientsWalkTest, TheDeviceSetLeavesOutOnlyMappingsOnOtherDevices) {
  HeronTest::TempDir disk("walk");
  HeronTest::TempDir shm("walk", true);
  if (deviceOf(disk.path()) == deviceOf(shm.path())) {
    GTEST_SKIP() << "no second file system";
  }
  const auto child = mapper({{pageFile(disk.file("t"), "relay.1"), false}, {pageFile(shm.file("t"), "relay.1"), true}});
  const std::set<int> pids = {child->pid()};
  const SeenMappings all = seenOf(SharedMem::findTableMappings(), pids);
  const SeenMappings onDisk = seenOf(SharedMem::findTableMappings(onDevices({deviceOf(disk.path())})), pids);
  EXPECT_EQ(all.size(), 2U);
  EXPECT_EQ(onDisk, SeenMappings({{disk.file("t"), {{child->pid(), false, false}}}}));
}

TEST(TableClientsWalkTest, ARefusedQueryFallsBackToTheText) {
  HeronTest::TempDir disk("walk");
  HeronTest::TempDir shm("walk", true);
  const auto child = mapper({{pageFile(disk.file("t"), "relay.1"), false}, {pageFile(shm.file("t"), "relay.1"), true}});
  const std::set<int> pids = {child->pid()};
  // The text knows no devices: the mapping on the other one is there too.
  EXPECT_EQ(seenOf(SharedMem::findTableMappings(onDevices({deviceOf(disk.path())}, true)), pids),
            seenOf(SharedMem::findTableMappings(), pids));
  EXPECT_EQ(seenOf(SharedMem::findTableMappings(onDevices({}, true)), pids).size(), 2U);
}

TEST(TableClientsTest, AMapsFileThatIsNoMapsFileIsReadAsText) {
  FakeMapsProc proc;
  proc.add(100, line("rw-s", "/r/orders/relay.1"));
  SharedMem::MappingWalk walk = proc.walk();
  walk.devices = std::vector<std::uint64_t>();
  EXPECT_EQ(SharedMem::findTableMappings(walk).size(), 1U);
}

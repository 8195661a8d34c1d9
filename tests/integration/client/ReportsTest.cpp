// heron -w, -A and -c against real processes attached to real tables under a
// private collection root. Other tests on this machine may run their own
// tables at the same time: assertions look only at this root's tables.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <thread>

#include "integration/client/ClientHarness.h"
#include "support/Child.h"
#include "support/Run.h"
#include "support/TempDir.h"

namespace {

using ClientTest::blocks;
using ClientTest::expectedHeader;
using ClientTest::heron;
using ClientTest::listedPids;
using ClientTest::Shadow;

constexpr const char* kNoHeader =
    "Capacity: primaryNotifications:NA secondaryNotifications:NA\n"
    "numRegions:NA totalSize:NA pagesFree:NA occupancyRate:NA%\n";
constexpr const char* kWarning = "You should run this command as root.\n";

std::string sim(int pid) { return "heron-sim-" + std::to_string(pid) + "(heron-sim)"; }

std::string clientList(std::vector<int> pids, const std::string& name) {
  std::sort(pids.begin(), pids.end());
  std::string text;
  for (int pid : pids) {
    text += (text.empty() ? "" : " ") + name + "-" + std::to_string(pid) + "(" + name + ")";
  }
  return text;
}

std::string simList(const std::vector<int>& pids) { return clientList(pids, "heron-sim"); }

std::string ownExeName() {
  char buffer[PATH_MAX] = {};
  ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  std::string target(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
  return target.substr(target.rfind('/') + 1);
}

// Maps one file of a table into this process for the lifetime of the object.
class OwnMapping {
 public:
  OwnMapping(const std::string& path, bool readWrite) {
    int fd = ::open(path.c_str(), readWrite ? O_RDWR : O_RDONLY);
    if (fd >= 0) {
      address_ = ::mmap(nullptr, 4096, readWrite ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
      ::close(fd);
    }
  }
  ~OwnMapping() {
    if (address_ != MAP_FAILED) {
      ::munmap(address_, 4096);
    }
  }
  OwnMapping(const OwnMapping&) = delete;
  OwnMapping& operator=(const OwnMapping&) = delete;
  bool mapped() const { return address_ != MAP_FAILED; }

 private:
  void* address_ = MAP_FAILED;
};

class ClientReportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(root.empty());
    ::setenv("HERON_ROOT", root.c_str(), 1);
    ::unsetenv("Q7_CHROOT");
  }

  // Creates a table with heron-sim; records whether the simulator made the
  // queue and allocator files, and adds empty stand-ins for the two mapped
  // files when it did not, so that processes can still attach.
  void createTables(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      ASSERT_NO_FATAL_FAILURE(createTable(name));
    }
  }
  void createTable(const std::string& name, const std::vector<std::string>& extra = {}) {
    std::vector<std::string> argv{ClientTest::binDir() + "/heron-sim", "create", name};
    argv.insert(argv.end(), extra.begin(), extra.end());
    auto result = ClientTest::run(argv);
    ASSERT_EQ(result.status, 0) << result.err;
    const std::string dir = root + "/" + name;
    simMadeFiles = ClientTest::exists(dir + "/relay.1") && ClientTest::exists(dir + "/quarry");
    standIns(dir);
  }

  static void standIns(const std::string& dir) {
    if (!ClientTest::exists(dir + "/relay.1")) {
      std::ofstream(dir + "/relay.1").close();
    }
    if (!ClientTest::exists(dir + "/ember")) {
      std::ofstream(dir + "/ember", std::ios::binary) << std::string(64, '\0');
    }
  }

  std::string makeOutsideDirectory() {
    outside_ = std::make_unique<HeronTest::TempDir>("heron-client-outside");
    EXPECT_FALSE(outside_->path().empty());
    std::string dir = outside_->table("tbl");
    standIns(dir);
    return dir;
  }

  std::string block(const std::string& name, const std::string& clients) const {
    return "Heron table \"" + name + "\"\n" + expectedHeader(root + "/" + name) + clients + "\n";
  }

 private:
  // Readable by the unprivileged user of the warning tests.
  HeronTest::TempDir rootDir_{"heron-client-it", false, 0755};
  std::unique_ptr<HeronTest::TempDir> outside_;

 protected:
  std::string root = rootDir_.path();
  bool simMadeFiles = false;
};

TEST_F(ClientReportsTest, WhoAllShowsTheWriterAndShadowsOfTwoTables) {
  ASSERT_NO_FATAL_FAILURE(createTables({"alpha", "beta"}));
  Shadow writerA({"alpha"}, true);
  Shadow shadowA1({"alpha"}, false);
  Shadow shadowA2({"alpha"}, false);
  Shadow writerB({"beta"}, true);
  Shadow shadowB({"beta"}, false);
  Shadow both({"alpha", "beta"}, false);
  for (const Shadow* shadow : {&writerA, &shadowA1, &shadowA2, &writerB, &shadowB, &both}) {
    ASSERT_TRUE(shadow->attached()) << shadow->announcement();
  }
  EXPECT_EQ(both.announcement(), "shadow " + std::to_string(both.pid()) + " attached to " + root + "/alpha\nshadow " +
                                     std::to_string(both.pid()) + " attached to " + root + "/beta\n");

  auto result = heron({"-A"});
  ASSERT_EQ(result.status, 0) << result.err;
  auto tables = blocks(result.out);
  EXPECT_EQ(tables["alpha"], block("alpha", "Writer: " + sim(writerA.pid()) + "\nShadow: " +
                                                simList({shadowA1.pid(), shadowA2.pid(), both.pid()}) + "\n"));
  EXPECT_EQ(tables["beta"], block("beta", "Writer: " + sim(writerB.pid()) +
                                              "\nShadow: " + simList({shadowB.pid(), both.pid()}) + "\n"));
  // Tables of this root come in name order.
  EXPECT_LT(result.out.find("Heron table \"alpha\""), result.out.find("Heron table \"beta\""));
  if (!simMadeFiles) {
    EXPECT_NE(result.err.find("cannot populate heron table from relay reader"), std::string::npos);
  }
}

TEST_F(ClientReportsTest, WhoListsTheClientsOfOneTableUnderItsRootPath) {
  ASSERT_NO_FATAL_FAILURE(createTables({"alpha", "beta"}));
  Shadow writer({"alpha"}, true);
  Shadow shadow({"alpha"}, false);
  Shadow other({"beta"}, false);
  ASSERT_TRUE(writer.attached() && shadow.attached() && other.attached());
  auto result = heron({"-w", "alpha"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Heron table \"" + root + "/alpha\"\n" + expectedHeader(root + "/alpha") +
                            "Writer: " + sim(writer.pid()) + "\nShadow: " + sim(shadow.pid()) + "\n\n");
  EXPECT_EQ(result.err.rfind("Table Name: alpha\n\n", 0), 0U) << result.err;
}

TEST_F(ClientReportsTest, WhoOfATableWithoutClientsPrintsNone) {
  createTable("alpha");
  auto result = heron({"-w", "alpha"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Heron table \"" + root + "/alpha\"\n" + expectedHeader(root + "/alpha") + "Clients: None\n\n");
}

TEST_F(ClientReportsTest, MissingAllocatorLeavesRegionFiguresNaAndKeepsTheQueueFigures) {
  createTable("alpha", {"--capacity", "300"});
  ASSERT_TRUE(simMadeFiles) << "heron-sim create made no quarry/relay.1 files";
  ASSERT_EQ(::unlink((root + "/alpha/quarry").c_str()), 0);
  auto result = heron({"-w", "alpha"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Heron table \"" + root +
                            "/alpha\"\n"
                            "Capacity: primaryNotifications:300 secondaryNotifications:300\n"
                            "numRegions:NA totalSize:NA pagesFree:NA occupancyRate:NA%\n"
                            "Clients: None\n\n");
  EXPECT_EQ(result.err, "Table Name: alpha\n\ncannot populate heron table from quarry reader\n");
}

TEST_F(ClientReportsTest, BothReadersFailingWriteBothLinesQuarryFirst) {
  createTable("alpha");
  ASSERT_TRUE(simMadeFiles) << "heron-sim create made no quarry/relay.1 files";
  ASSERT_EQ(::unlink((root + "/alpha/quarry").c_str()), 0);
  ASSERT_EQ(::unlink((root + "/alpha/relay.2").c_str()), 0);
  auto result = heron({"-w", "alpha"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Heron table \"" + root + "/alpha\"\n" + kNoHeader + "Clients: None\n\n");
  EXPECT_EQ(result.err,
            "Table Name: alpha\n\n"
            "cannot populate heron table from quarry reader\n"
            "cannot populate heron table from relay reader\n");
}

TEST_F(ClientReportsTest, WhatListsTheTablesOfAPidUnderEachRole) {
  ASSERT_NO_FATAL_FAILURE(createTables({"alpha", "beta"}));
  Shadow writer({"alpha"}, true);
  Shadow both({"alpha", "beta"}, false);
  ASSERT_TRUE(writer.attached() && both.attached());
  const std::string alpha = block("alpha", "Writer: " + sim(writer.pid()) + "\nShadow: " + sim(both.pid()) + "\n");
  const std::string beta = block("beta", "Shadow: " + sim(both.pid()) + "\n");

  auto asShadow = heron({"-c", std::to_string(both.pid())});
  ASSERT_EQ(asShadow.status, 0) << asShadow.err;
  const std::string pidText = std::to_string(both.pid());
  EXPECT_EQ(asShadow.out, "Tables with client ( pid: " + pidText + " ) of Type Writer:\nTables with client ( pid: " +
                              pidText + " ) of Type Shadow:\n" + alpha + beta);

  auto asWriter = heron({"-c", std::to_string(writer.pid())});
  ASSERT_EQ(asWriter.status, 0) << asWriter.err;
  const std::string writerText = std::to_string(writer.pid());
  EXPECT_EQ(asWriter.out, "Tables with client ( pid: " + writerText + " ) of Type Writer:\n" + alpha +
                              "Tables with client ( pid: " + writerText + " ) of Type Shadow:\n");
}

TEST_F(ClientReportsTest, WhatForAPidAttachedToNothingPrintsBothHeadings) {
  createTable("alpha");
  Shadow shadow({"alpha"}, false);
  ASSERT_TRUE(shadow.attached());
  auto result = heron({"-c", "1"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "Tables with client ( pid: 1 ) of Type Writer:\nTables with client ( pid: 1 ) of Type Shadow:\n");
}

TEST_F(ClientReportsTest, ProcessMappingOneFileReadWriteAndAnotherReadOnlyIsWriterAndShadow) {
  createTable("alpha");
  OwnMapping relay(root + "/alpha/relay.1", true);
  OwnMapping ember(root + "/alpha/ember", false);
  ASSERT_TRUE(relay.mapped() && ember.mapped());
  Shadow reader({"alpha"}, false);
  ASSERT_TRUE(reader.attached());
  const std::string self = clientList({::getpid()}, ownExeName());
  auto result = heron({"-A"});
  ASSERT_EQ(result.status, 0) << result.err;
  const std::vector<int> shadows{::getpid(), reader.pid()};
  std::string shadowText = ::getpid() < reader.pid() ? self + " " + sim(reader.pid()) : sim(reader.pid()) + " " + self;
  EXPECT_EQ(blocks(result.out)["alpha"], block("alpha", "Writer: " + self + "\nShadow: " + shadowText + "\n"));
}

TEST_F(ClientReportsTest, TableOfTypeOneIsSkipped) {
  createTable("segment", {"--type", "1"});
  createTable("alpha");
  Shadow shadow({"segment", "alpha"}, false);
  ASSERT_TRUE(shadow.attached()) << shadow.announcement();
  auto all = heron({"-A"});
  ASSERT_EQ(all.status, 0) << all.err;
  auto tables = blocks(all.out);
  EXPECT_EQ(tables.count("segment"), 0U) << all.out;
  EXPECT_EQ(tables["alpha"], block("alpha", "Shadow: " + sim(shadow.pid()) + "\n"));
  const std::string pidText = std::to_string(shadow.pid());
  auto what = heron({"-c", pidText});
  EXPECT_EQ(what.out, "Tables with client ( pid: " + pidText + " ) of Type Writer:\nTables with client ( pid: " +
                          pidText + " ) of Type Shadow:\n" + block("alpha", "Shadow: " + sim(shadow.pid()) + "\n"));
}

TEST_F(ClientReportsTest, MappedDirectoryOutsideTheRootIsListedUnderItsFullPath) {
  const std::string outside = makeOutsideDirectory();
  Shadow shadow({outside}, false);
  ASSERT_TRUE(shadow.attached()) << shadow.announcement();
  auto result = heron({"-A"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(blocks(result.out)[outside],
            "Heron table \"" + outside + "\"\n" + kNoHeader + "Shadow: " + sim(shadow.pid()) + "\n\n");
  EXPECT_NE(result.err.find("cannot populate heron table from quarry reader\n"
                            "cannot populate heron table from relay reader\n"),
            std::string::npos);
}

// Heron files lying directly in the root leave no table name behind the root
// path; the lookup throws and the launcher reports it in one line.
TEST_F(ClientReportsTest, FilesMappedDirectlyInTheRootGiveOneLineAndStatusOne) {
  standIns(root);
  Shadow shadow({root}, false);
  ASSERT_TRUE(shadow.attached()) << shadow.announcement();
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"-A"}, std::vector<std::string>{"-c", std::to_string(shadow.pid())}}) {
    auto result = heron(args);
    EXPECT_EQ(result.status, 1) << args[0] << ": " << result.err;
    EXPECT_EQ(result.err.rfind("heron: unexpected error: ", 0), 0U) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

TEST_F(ClientReportsTest, ClientlessTableWithFullHeaderIsListed) {
  createTable("idle");
  ASSERT_TRUE(simMadeFiles) << "heron-sim create made no quarry/relay.1 files";
  auto result = heron({"-A"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(blocks(result.out)["idle"],
            "Heron table \"idle\"\n" + expectedHeader(root + "/idle") + "Clients: None\n\n");
  EXPECT_EQ(expectedHeader(root + "/idle").find("NA"), std::string::npos);
}

TEST_F(ClientReportsTest, LiveTableHeaderShowsRealFigures) {
  createTable("alpha");
  ASSERT_TRUE(simMadeFiles) << "heron-sim create made no quarry/relay.1 files";
  Shadow shadow({"alpha"}, false);
  ASSERT_TRUE(shadow.attached());
  auto result = heron({"-w", "alpha"});
  ASSERT_EQ(result.status, 0) << result.err;
  const std::string header = expectedHeader(root + "/alpha");
  EXPECT_EQ(header.find("NA"), std::string::npos) << header;
  EXPECT_EQ(result.out, "Heron table \"" + root + "/alpha\"\n" + header + "Shadow: " + sim(shadow.pid()) + "\n\n");
  EXPECT_EQ(result.err.find("cannot populate"), std::string::npos) << result.err;
}

TEST_F(ClientReportsTest, ClientlessTableWithMissingHeaderIsNotListed) {
  createTable("idle");
  ::unlink((root + "/idle/quarry").c_str());
  auto result = heron({"-A"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(blocks(result.out).count("idle"), 0U) << result.out;
  EXPECT_EQ(result.out.find("Heron table \"idle\""), std::string::npos);
}

TEST_F(ClientReportsTest, RootWarningForAnUnprivilegedUser) {
  if (::getuid() != 0) {
    GTEST_SKIP() << "needs root to switch to an unprivileged user";
  }
  createTable("alpha");
  ::chmod((root + "/alpha").c_str(), 0755);
  // The build tree may be out of that user's reach: run a copy it can read.
  const HeronTest::PublicHeronCopy copy;
  ASSERT_TRUE(copy.ok()) << copy.error();
  const std::vector<std::string> nobody{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  auto asNobody = [&nobody, &copy](std::vector<std::string> args, std::vector<std::string> env) {
    std::vector<std::string> argv = nobody;
    argv.push_back(copy.heron());
    argv.insert(argv.end(), args.begin(), args.end());
    const std::vector<std::string> libraryPath = copy.env();
    env.insert(env.end(), libraryPath.begin(), libraryPath.end());
    return ClientTest::run(argv, env);
  };
  auto all = asNobody({"-A"}, {});
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_EQ(all.out.rfind(kWarning, 0), 0U) << all.out;
  EXPECT_EQ(all.out.find(kWarning, 1), std::string::npos) << "one warning for who-all";

  // Without rights no maps file of another user is readable, so what
  // follows the warning depends on the other processes of the machine.
  auto what = asNobody({"-c", "1"}, {});
  EXPECT_EQ(what.status, 0) << what.err;
  EXPECT_EQ(what.out.rfind(kWarning, 0), 0U) << what.out;
  EXPECT_EQ(what.out.find(kWarning, 1), std::string::npos) << what.out;

  // The single-table query warns once more inside the client gathering.
  auto who = asNobody({"-w", "alpha"}, {});
  EXPECT_EQ(who.status, 0) << who.err;
  EXPECT_EQ(who.out, std::string(kWarning) + kWarning + "Heron table \"" + root + "/alpha\"\n" +
                         expectedHeader(root + "/alpha") + "Clients: None\n\n");

  auto chroot = asNobody({"-A"}, {"Q7_CHROOT="});
  EXPECT_EQ(chroot.status, 0) << chroot.err;
  EXPECT_EQ(chroot.out.find(kWarning), std::string::npos) << chroot.out;

  auto asRoot = heron({"-A"});
  EXPECT_EQ(asRoot.out.find(kWarning), std::string::npos);
}

TEST_F(ClientReportsTest, ListedClientsMatchWhatFuserAndLsofSee) {
  ASSERT_NO_FATAL_FAILURE(createTables({"alpha", "beta"}));
  Shadow writerA({"alpha"}, true);
  Shadow shadowA({"alpha"}, false);
  Shadow both({"alpha", "beta"}, false);
  Shadow writerB({"beta"}, true);
  ASSERT_TRUE(writerA.attached() && shadowA.attached() && both.attached() && writerB.attached());
  auto result = heron({"-A"});
  ASSERT_EQ(result.status, 0) << result.err;
  auto tables = blocks(result.out);
  for (const std::string name : {"alpha", "beta"}) {
    std::set<int> fuserPids;
    std::set<int> lsofPids;
    for (const std::string file : {"relay.1", "ember"}) {
      const std::string path = root + "/" + name + "/" + file;
      auto fuser = ClientTest::run({"fuser", path});
      std::istringstream words(fuser.out);
      int pid;
      while (words >> pid) {
        fuserPids.insert(pid);
      }
      // fuser marks memory-mapped users with 'm'.
      EXPECT_NE(fuser.err.find('m'), std::string::npos) << fuser.err;
      auto lsof = ClientTest::run({"lsof", "-t", path});
      std::istringstream lsofWords(lsof.out);
      while (lsofWords >> pid) {
        lsofPids.insert(pid);
      }
    }
    EXPECT_EQ(listedPids(tables[name]), fuserPids) << name << "\n" << result.out;
    EXPECT_EQ(listedPids(tables[name]), lsofPids) << name << "\n" << result.out;
  }
}

TEST_F(ClientReportsTest, ChurnOfShortLivedClientsNeverMisattributes) {
  createTable("churn");
  createTable("steady");
  Shadow steady({"steady"}, false);
  ASSERT_TRUE(steady.attached());
  const std::string relay = root + "/churn/relay.1";
  const std::string pidFile = root + "/churn-pids";
  // A spawner process starts 200 short-lived clients of "churn", one every
  // few milliseconds, and writes down each client's pid.
  HeronTest::Child spawner([&] {
    std::FILE* pids = std::fopen(pidFile.c_str(), "w");
    for (int i = 0; i < 200; ++i) {
      pid_t client = ::fork();
      if (client == 0) {
        OwnMapping mapping(relay, false);
        // Lives 0.2 to 1.2 s: short, but long enough that a slow heron (a
        // sanitizer build on a loaded machine) still finds some alive when
        // it reaches them, late in its walk of /proc. The lifetime is the
        // churn under test, not a wait.
        ::usleep(static_cast<useconds_t>(200000 + (i * 7919) % 1000000));
        ::_exit(mapping.mapped() ? 0 : 1);
      }
      std::fprintf(pids, "%d\n", client);
      std::fflush(pids);
      // The pace of the churn: one new client every few milliseconds.
      ::usleep(5000);
      while (::waitpid(-1, nullptr, WNOHANG) > 0) {
      }
    }
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
    std::fclose(pids);
    return 0;
  });
  ASSERT_TRUE(spawner.started()) << spawner.error();
  const std::string steadyPid = std::to_string(steady.pid());
  const std::string steadyWhat = "Tables with client ( pid: " + steadyPid +
                                 " ) of Type Writer:\nTables with client ( pid: " + steadyPid + " ) of Type Shadow:\n" +
                                 block("steady", "Shadow: " + sim(steady.pid()) + "\n");
  std::vector<std::set<int>> churnListings;
  int runs = 0;
  bool spawnerDone = false;
  while (!spawnerDone || runs < 4) {
    spawnerDone = spawnerDone || !spawner.running();
    auto all = heron({"-A"});
    ASSERT_EQ(all.status, 0) << all.err;
    auto tables = blocks(all.out);
    EXPECT_EQ(tables["steady"], block("steady", "Shadow: " + sim(steady.pid()) + "\n"));
    if (tables.count("churn") != 0) {
      churnListings.push_back(listedPids(tables["churn"]));
    }
    auto what = heron({"-c", steadyPid});
    ASSERT_EQ(what.status, 0) << what.err;
    EXPECT_EQ(what.out, steadyWhat);
    // The latest churn client: if listed at all, then only under "churn".
    std::istringstream started(ClientTest::readAll(pidFile));
    std::string latest;
    for (std::string word; started >> word;) {
      latest = word;
    }
    if (!latest.empty()) {
      auto churner = heron({"-c", latest});
      ASSERT_EQ(churner.status, 0) << churner.err;
      for (const auto& listed : blocks(churner.out)) {
        EXPECT_EQ(listed.first, "churn") << churner.out;
      }
    }
    ++runs;
  }
  std::set<int> churnPids;
  std::istringstream pids(ClientTest::readAll(pidFile));
  int pid;
  while (pids >> pid) {
    churnPids.insert(pid);
  }
  EXPECT_EQ(churnPids.size(), 200U);
  std::size_t seen = 0;
  for (const std::set<int>& listing : churnListings) {
    for (int listed : listing) {
      EXPECT_EQ(churnPids.count(listed), 1U) << "pid " << listed << " listed under churn";
      ++seen;
    }
  }
  EXPECT_GT(seen, 0U) << "no churn client was ever seen in " << runs << " runs";
  // Everything has exited: no client is left on the table (a clientless
  // table with a complete header is still listed, with "Clients: None").
  auto after = heron({"-A"});
  EXPECT_TRUE(listedPids(blocks(after.out)["churn"]).empty()) << after.out;
}

}  // namespace

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>

#include "Beacon/Platform.h"
#include "SharedMem/Ember.h"
#include "SharedMem/EmberId.h"
#include "support/Handler.h"
#include "support/Run.h"

namespace {

using SharedMem::EmberHeader;
using SharedMem::LoadStatus;

using HeronTest::quietHandler;

::testing::AssertionResult opened(SharedMem::EmberWriter& writer) {
  std::string error;
  if (writer.open(error)) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << error;
}

std::string validBytes() {
  EmberHeader header{};
  header.magic = EmberHeader::kMagic;
  header.version = EmberHeader::kVersion;
  header.current = SharedMem::EmberId{12, 3};
  header.writerPid = 12;
  header.restarts = 3;
  return std::string(reinterpret_cast<const char*>(&header), sizeof header);
}

TEST(Ember, WriterCreatesAndReaderReads) {
  HeronTest::TempRoot root;
  Mem::RootPath table(root.path());
  std::uint64_t before = SharedMem::nowNs();
  SharedMem::EmberWriter writer(quietHandler(), table);
  ASSERT_TRUE(opened(writer));
  std::string file = HeronTest::readFile(root.file("ember"));
  ASSERT_EQ(file.size(), 64U);
  EXPECT_EQ(file.substr(0, 8), "HRNEMBER");

  EmberHeader header{};
  ASSERT_EQ(SharedMem::readEmber(table, header), LoadStatus::Ok);
  auto pid = static_cast<std::uint32_t>(::getpid());
  EXPECT_EQ(header.version, 1U);
  EXPECT_EQ(header.current.pid, pid & 0xFFFFU);
  EXPECT_EQ(header.current.instanceId, 0);
  EXPECT_EQ(header.writerPid, pid);
  EXPECT_EQ(header.restarts, 0U);
  EXPECT_GE(header.startedNs, before);
  EXPECT_EQ(header.heartbeatNs, header.startedNs);
  EXPECT_EQ(writer.id().pid, header.current.pid);
}

TEST(Ember, WriterRecordsItsPidNamespaceAtOffset48) {
  HeronTest::TempRoot root;
  SharedMem::EmberWriter writer(quietHandler(), Mem::RootPath(root.path()));
  ASSERT_TRUE(opened(writer));
  struct stat own {};
  ASSERT_EQ(::stat("/proc/self/ns/pid", &own), 0);
  const std::string file = HeronTest::readFile(root.file("ember"));
  ASSERT_EQ(file.size(), 64U);
  std::uint64_t recorded = 0;
  std::memcpy(&recorded, file.data() + 48, sizeof recorded);
  EXPECT_EQ(recorded, static_cast<std::uint64_t>(own.st_ino));
  EXPECT_NE(recorded, 0U);
}

TEST(Ember, RestartBumpsInstanceAndRestarts) {
  HeronTest::TempRoot root;
  Mem::RootPath table(root.path());
  std::string error;
  {
    SharedMem::EmberWriter first(quietHandler(), table);
    ASSERT_TRUE(first.open(error)) << error;
  }
  SharedMem::EmberWriter second(quietHandler(), table);
  ASSERT_TRUE(second.open(error)) << error;
  EmberHeader header{};
  ASSERT_EQ(SharedMem::readEmber(table, header), LoadStatus::Ok);
  EXPECT_EQ(header.current.instanceId, 1);
  EXPECT_EQ(header.restarts, 1U);
  EXPECT_EQ(second.id().instanceId, 1);
}

TEST(Ember, HeartbeatMovesForward) {
  HeronTest::TempRoot root;
  Mem::RootPath table(root.path());
  SharedMem::EmberWriter writer(quietHandler(), table);
  ASSERT_TRUE(opened(writer));
  EmberHeader before{};
  ASSERT_EQ(SharedMem::readEmber(table, before), LoadStatus::Ok);
  // The heartbeat is the wall clock: wait until it has moved on from the
  // start, however coarse it is here.
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (SharedMem::nowNs() <= before.heartbeatNs && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::yield();
  }
  writer.heartbeat();
  EmberHeader after{};
  ASSERT_EQ(SharedMem::readEmber(table, after), LoadStatus::Ok);
  EXPECT_GT(after.heartbeatNs, before.heartbeatNs);
  EXPECT_EQ(after.startedNs, before.startedNs);
}

TEST(Ember, HeartbeatStoresTheMonotonicClockAtOffset40) {
  HeronTest::TempRoot root;
  Mem::RootPath table(root.path());
  SharedMem::EmberWriter writer(quietHandler(), table);
  ASSERT_TRUE(opened(writer));
  std::uint64_t before = SharedMem::monoNs();
  writer.heartbeat();
  std::uint64_t after = SharedMem::monoNs();
  std::string file = HeronTest::readFile(root.file("ember"));
  ASSERT_EQ(file.size(), 64U);
  std::uint64_t stored = 0;
  file.copy(reinterpret_cast<char*>(&stored), sizeof stored, 40);
  EXPECT_GE(stored, before);
  EXPECT_LE(stored, after);
  EmberHeader header{};
  ASSERT_EQ(SharedMem::readEmber(table, header), LoadStatus::Ok);
  EXPECT_EQ(header.heartbeatMonoNs, stored);
}

TEST(Ember, ValidFileReads) {
  HeronTest::TempRoot root;
  ASSERT_TRUE(HeronTest::writeFile(root.file("ember"), validBytes()));
  EmberHeader header{};
  ASSERT_EQ(SharedMem::readEmber(Mem::RootPath(root.path()), header), LoadStatus::Ok);
  EXPECT_EQ(header.current.pid, 12);
  EXPECT_EQ(header.current.instanceId, 3);
}

TEST(Ember, MissingFileIsNotReadable) {
  HeronTest::TempRoot root;
  EmberHeader header{};
  EXPECT_EQ(SharedMem::readEmber(Mem::RootPath(root.path()), header), LoadStatus::NotReady);
}

TEST(Ember, ShortFileIsNotReadable) {
  HeronTest::TempRoot root;
  ASSERT_TRUE(HeronTest::writeFile(root.file("ember"), validBytes().substr(0, 63)));
  EmberHeader header{};
  EXPECT_EQ(SharedMem::readEmber(Mem::RootPath(root.path()), header), LoadStatus::NotReady);
}

TEST(Ember, BadMagicIsNotReadable) {
  HeronTest::TempRoot root;
  std::string bytes = validBytes();
  bytes[0] = 'X';
  ASSERT_TRUE(HeronTest::writeFile(root.file("ember"), bytes));
  EmberHeader header{};
  EXPECT_EQ(SharedMem::readEmber(Mem::RootPath(root.path()), header), LoadStatus::Corrupt);
}

TEST(Ember, BadVersionIsNotReadable) {
  HeronTest::TempRoot root;
  std::string bytes = validBytes();
  bytes[8] = 2;
  ASSERT_TRUE(HeronTest::writeFile(root.file("ember"), bytes));
  EmberHeader header{};
  EXPECT_EQ(SharedMem::readEmber(Mem::RootPath(root.path()), header), LoadStatus::Incompatible);
}

TEST(EmberId, PrintsPidDotInstanceInDecimal) {
  std::ostringstream text;
  text << std::hex << SharedMem::EmberId{4711, 2} << ' ' << 255;
  EXPECT_EQ(text.str(), "4711.2 ff");
}

}  // namespace

namespace {

TEST(Ember, WriterReplacesAnUnreadableFileWithAFreshIdentity) {
  HeronTest::TempRoot root;
  ASSERT_TRUE(HeronTest::writeFile(root.file("ember"), std::string(64, '\x7f')));
  SharedMem::EmberWriter writer(quietHandler(), Mem::RootPath(root.path()));
  ASSERT_TRUE(opened(writer));
  EmberHeader header{};
  ASSERT_EQ(SharedMem::readEmber(Mem::RootPath(root.path()), header), LoadStatus::Ok);
  EXPECT_EQ(header.current.instanceId, 0);
  EXPECT_EQ(header.restarts, 0U);
  EXPECT_NE(header.heartbeatMonoNs, 0x7f7f7f7f7f7f7f7fULL);
  EXPECT_NE(header.pidNamespace, 0x7f7f7f7f7f7f7f7fULL);
  EXPECT_EQ(header.reserved, 0U);
}

TEST(Ember, WriterRefusesAFileShorterThanTheHeader) {
  HeronTest::TempRoot root;
  ASSERT_TRUE(HeronTest::writeFile(root.file("ember"), "short"));
  SharedMem::EmberWriter writer(quietHandler(), Mem::RootPath(root.path()));
  std::string error;
  EXPECT_FALSE(writer.open(error));
  EXPECT_FALSE(error.empty());
}

}  // namespace

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "SharedMem/OwnerFile.h"
#include "support/Handler.h"
#include "support/Run.h"
#include "support/TempDir.h"

namespace {

using SharedMem::LoadStatus;
using SharedMem::OwnerFile;

using HeronTest::quietHandler;

OwnerFile::Header validHeader() {
  OwnerFile::Header header{};
  header.magic = OwnerFile::kMagic;
  header.version = OwnerFile::kVersion;
  header.sharedMemType = SharedMem::Table;
  header.ownerPid = 4711;
  header.ember = SharedMem::EmberId{4711, 2};
  header.createdNs = 1700000000123456789ULL;
  std::strcpy(header.typeName, "HeronTable");
  std::strcpy(header.hostname, "box");
  return header;
}

std::string bytes(const OwnerFile::Header& header, std::size_t size = sizeof(OwnerFile::Header)) {
  return std::string(reinterpret_cast<const char*>(&header), size);
}

void expectUnreadable(const OwnerFile& owner) {
  EXPECT_EQ(owner.typeName(), "");
  EXPECT_EQ(owner.sharedMemType(), SharedMem::Unknown);
  OwnerFile::Header header{};
  EXPECT_FALSE(owner.header(header));
}

TEST(OwnerFile, CreateThenReadRoundTrips) {
  HeronTest::TempRoot root;
  Mem::RootPath table(root.path());
  std::string error;
  ASSERT_TRUE(OwnerFile::create(table, SharedMem::Table, "HeronTable", {77, 3}, error)) << error;
  EXPECT_EQ(HeronTest::readFile(root.file("owner")).size(), 128U);
  EXPECT_FALSE(HeronTest::exists(root.file("owner.tmp")));

  OwnerFile owner(quietHandler(), table, false);
  EXPECT_EQ(owner.status(), LoadStatus::Ok);
  EXPECT_EQ(owner.typeName(), "HeronTable");
  EXPECT_EQ(owner.sharedMemType(), SharedMem::Table);
  OwnerFile::Header header{};
  ASSERT_TRUE(owner.header(header));
  EXPECT_EQ(header.magic, OwnerFile::kMagic);
  EXPECT_EQ(header.version, 1U);
  EXPECT_EQ(header.ownerPid, static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(header.ember.pid, 77);
  EXPECT_EQ(header.ember.instanceId, 3);
  EXPECT_GT(header.createdNs, 1600000000000000000ULL);
  char host[64] = {};
  ::gethostname(host, sizeof host - 1);
  EXPECT_STREQ(header.hostname, host);
}

TEST(OwnerFile, MagicIsHrnownerInFileOrder) {
  HeronTest::TempRoot root;
  std::string error;
  ASSERT_TRUE(OwnerFile::create(Mem::RootPath(root.path()), SharedMem::Segment, "Seg", {1, 0}, error)) << error;
  std::string file = HeronTest::readFile(root.file("owner"));
  EXPECT_EQ(file.substr(0, 8), "HRNOWNER");
  EXPECT_EQ(file.substr(32, 4), std::string("Seg\0", 4));
}

TEST(OwnerFile, CreateRefusesAnExistingOwner) {
  HeronTest::TempRoot root;
  std::string error;
  ASSERT_TRUE(OwnerFile::create(Mem::RootPath(root.path()), SharedMem::Table, "A", {1, 0}, error)) << error;
  EXPECT_FALSE(OwnerFile::create(Mem::RootPath(root.path()), SharedMem::Table, "B", {1, 0}, error));
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(OwnerFile(quietHandler(), Mem::RootPath(root.path()), false).typeName(), "A");
}

TEST(OwnerFile, LongTypeNameIsCutToFitItsField) {
  HeronTest::TempRoot root;
  std::string error;
  ASSERT_TRUE(OwnerFile::create(Mem::RootPath(root.path()), SharedMem::Table, std::string(40, 'x'), {1, 0}, error));
  EXPECT_EQ(OwnerFile(quietHandler(), Mem::RootPath(root.path()), false).typeName(), std::string(31, 'x'));
}

TEST(OwnerFile, TypeNameFillingTheWholeFieldIsRead) {
  HeronTest::TempRoot root;
  OwnerFile::Header header = validHeader();
  std::memset(header.typeName, 'y', sizeof header.typeName);
  ASSERT_TRUE(HeronTest::writeFile(root.file("owner"), bytes(header)));
  EXPECT_EQ(OwnerFile(quietHandler(), Mem::RootPath(root.path()), false).typeName(), std::string(32, 'y'));
}

TEST(OwnerFile, MissingFileIsNotReadable) {
  HeronTest::TempRoot root;
  OwnerFile owner(quietHandler(), Mem::RootPath(root.path()), false);
  EXPECT_EQ(owner.status(), LoadStatus::NotReady);
  expectUnreadable(owner);
}

// An owner file that is there but cannot be read, and how it loads.
struct Damaged {
  const char* name;
  std::string bytes;
  LoadStatus status;
};

std::ostream& operator<<(std::ostream& out, const Damaged& damaged) { return out << damaged.name; }

std::vector<Damaged> damagedFiles() {
  OwnerFile::Header badMagic = validHeader();
  badMagic.magic ^= 1;
  OwnerFile::Header newer = validHeader();
  newer.version = 2;
  return {{"ShortFileIsNotReadable", bytes(validHeader(), 127), LoadStatus::NotReady},
          {"BadMagicIsNotReadable", bytes(badMagic), LoadStatus::Corrupt},
          {"BadVersionIsNotReadable", bytes(newer), LoadStatus::Incompatible}};
}

class OwnerFileDamaged : public testing::TestWithParam<Damaged> {};

TEST_P(OwnerFileDamaged, LoadsAsItsStatusAndIsNotReadable) {
  HeronTest::TempRoot root;
  ASSERT_TRUE(HeronTest::writeFile(root.file("owner"), GetParam().bytes));
  OwnerFile owner(quietHandler(), Mem::RootPath(root.path()), false);
  EXPECT_EQ(owner.status(), GetParam().status);
  expectUnreadable(owner);
}

INSTANTIATE_TEST_SUITE_P(OwnerFile, OwnerFileDamaged, testing::ValuesIn(damagedFiles()),
                         [](const testing::TestParamInfo<Damaged>& info) { return std::string(info.param.name); });

TEST(OwnerFile, LongerFileReadsItsFirst128Bytes) {
  HeronTest::TempRoot root;
  ASSERT_TRUE(HeronTest::writeFile(root.file("owner"), bytes(validHeader()) + "trailing"));
  EXPECT_EQ(OwnerFile(quietHandler(), Mem::RootPath(root.path()), false).typeName(), "HeronTable");
}

TEST(OwnerFile, TypeZeroInAValidFileReadsAsUnknownWithItsText) {
  HeronTest::TempRoot root;
  OwnerFile::Header header = validHeader();
  header.sharedMemType = 0;
  ASSERT_TRUE(HeronTest::writeFile(root.file("owner"), bytes(header)));
  OwnerFile owner(quietHandler(), Mem::RootPath(root.path()), false);
  EXPECT_EQ(owner.status(), LoadStatus::Ok);
  EXPECT_EQ(owner.sharedMemType(), SharedMem::Unknown);
  EXPECT_EQ(owner.typeName(), "HeronTable");
}

TEST(OwnerFile, EmptyTypeNameInAValidFile) {
  HeronTest::TempRoot root;
  OwnerFile::Header header = validHeader();
  std::memset(header.typeName, 0, sizeof header.typeName);
  ASSERT_TRUE(HeronTest::writeFile(root.file("owner"), bytes(header)));
  OwnerFile owner(quietHandler(), Mem::RootPath(root.path()), false);
  EXPECT_EQ(owner.sharedMemType(), SharedMem::Table);
  EXPECT_EQ(owner.typeName(), "");
}

TEST(OwnerFile, PrettyStringForm) {
  EXPECT_EQ(validHeader().toPrettyString(),
            "Owner file:\n"
            "\tMagic: 0x52454e574f4e5248 (\"HRNOWNER\")\n"
            "\tVersion: 1\n"
            "\tType: 2 (table)\n"
            "\tType name: HeronTable\n"
            "\tOwner pid: 4711\n"
            "\tEmber: 4711.2\n"
            "\tCreated: 1700000000123456789 ns\n"
            "\tHost: box");
}

TEST(OwnerFile, PrettyStringOfAnUnknownTypeNumber) {
  OwnerFile::Header header = validHeader();
  header.sharedMemType = 9;
  EXPECT_NE(header.toPrettyString().find("\tType: 9 (9)\n"), std::string::npos) << header.toPrettyString();
}

TEST(SharedMemType, Names) {
  std::ostringstream text;
  text << SharedMem::Unknown << ' ' << SharedMem::Segment << ' ' << SharedMem::Table << ' ' << SharedMem::Archive << ' '
       << static_cast<SharedMem::SharedMemType>(7);
  EXPECT_EQ(text.str(), "unknown segment table archive 7");
}

}  // namespace

namespace {

// Names the client reports could not attribute are refused, and no owner
// file is left behind.
TEST(OwnerFile, CreateRefusesNamesWithBlanksAndControlCharacters) {
  HeronTest::TempDir root("heron-owner-name");
  for (const char* name : {"a b", "a\nb", "a\tb", "a\x1b[2Jb", "a\\012b", "a\x7f"}) {
    SCOPED_TRACE(name);
    const std::string dir = root.table(name);
    std::string error;
    EXPECT_FALSE(OwnerFile::create(Mem::RootPath(dir), SharedMem::Table, "HeronTable", {1, 0}, error));
    EXPECT_NE(error.find("client reports could not attribute the table"), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_NE(::access((dir + "/owner").c_str(), F_OK), 0);
  }
}

TEST(OwnerFile, NameCheckNamesTheOffendingByte) {
  std::string error;
  EXPECT_TRUE(Mem::checkTablePath("/dev/shm/heron/md/eu/quotes-1_2.x", error)) << error;
  EXPECT_FALSE(Mem::checkTablePath("/r/a\nb", error));
  EXPECT_EQ(error,
            "table name \"/r/a\\nb\" holds a control character (\"\\n\"): client reports could not attribute the "
            "table; use printable characters other than blank and backslash");
  EXPECT_FALSE(Mem::checkTablePath("/r/a b", error));
  EXPECT_NE(error.find("holds a blank"), std::string::npos) << error;
}

}  // namespace

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>

#include "Beacon/Platform.h"
#include "Beacon/Util.h"
#include "Mem/VersionedRef.h"
#include "Tock/Sequence.h"
#include "support/Child.h"
#include "support/Handler.h"
#include "support/Run.h"
#include "support/TempDir.h"

namespace {

using HeronTest::quietHandler;

TEST(DecodeMagic, ShowsTheBytesInFileOrder) {
  EXPECT_EQ(Beacon::Util::decodeMagic(Beacon::Util::encodeMagic("HRNOWNER")), "HRNOWNER");
  EXPECT_EQ(Beacon::Util::decodeMagic(0x59414c45524e5248ULL), "HRNRELAY");
  EXPECT_EQ(Beacon::Util::decodeMagic(0x41ULL), "A.......");
}

TEST(DecodeMagic, UnprintableBytesShowAsDots) {
  EXPECT_EQ(Beacon::Util::decodeMagic(0), "........");
  EXPECT_EQ(Beacon::Util::decodeMagic(0xFF7F1F2042ULL), "B ......");
}

TEST(EncodeMagic, FirstCharacterIsTheLowByte) {
  static_assert(Beacon::Util::encodeMagic("ABCDEFGH") == 0x4847464544434241ULL, "little-endian file order");
  EXPECT_EQ(Beacon::Util::encodeMagic("HRNEMBER") & 0xFFU, static_cast<unsigned>('H'));
}

class ReadPidCmdline : public testing::Test {
 protected:
  void fake(int pid, const std::string& bytes) {
    std::string dir = proc.file(std::to_string(pid));
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    ASSERT_TRUE(HeronTest::writeFile(dir + "/cmdline", bytes));
  }
  std::string read(int pid) { return Beacon::Util::readPidCmdline(quietHandler(), pid, proc.path()); }
  HeronTest::TempRoot proc;
};

TEST_F(ReadPidCmdline, NulsBecomeBlanks) {
  fake(100, std::string("/usr/bin/prog\0-x\0arg two\0", 25));
  EXPECT_EQ(read(100), "/usr/bin/prog -x arg two");
}

TEST_F(ReadPidCmdline, NoTrailingBlank) {
  fake(101, std::string("prog\0\0\0", 7));
  EXPECT_EQ(read(101), "prog");
}

TEST_F(ReadPidCmdline, WithoutTerminatingNul) {
  fake(102, "rewritten title");
  EXPECT_EQ(read(102), "rewritten title");
}

TEST_F(ReadPidCmdline, EmptyCmdlineIsEmpty) {
  fake(103, "");
  EXPECT_EQ(read(103), "");
}

TEST_F(ReadPidCmdline, LongCmdlineIsReadWhole) {
  std::string arg(10000, 'a');
  fake(104, std::string("prog\0", 5) + arg + std::string("\0", 1));
  EXPECT_EQ(read(104), "prog " + arg);
}

TEST_F(ReadPidCmdline, MissingPidIsEmpty) { EXPECT_EQ(read(999), ""); }

TEST(ReadPidCmdlineLive, RealProcess) {
  // Killed by the end of the test, long before its 30 s are up.
  HeronTest::Child sleeper({"/bin/sleep", "30"}, {});
  ASSERT_TRUE(sleeper.started()) << sleeper.error();
  // The child has executed sleep by now; the read is still polled, with a
  // deadline, in case the kernel shows the new cmdline a little later.
  std::string text = Beacon::Util::readPidCmdline(quietHandler(), sleeper.pid());
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (text != "/bin/sleep 30" && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::yield();
    text = Beacon::Util::readPidCmdline(quietHandler(), sleeper.pid());
  }
  EXPECT_EQ(text, "/bin/sleep 30");
}

TEST(ReadPidCmdlineLive, VanishedProcessIsEmpty) {
  HeronTest::Child child([] { return 0; });
  ASSERT_TRUE(child.started()) << child.error();
  ASSERT_EQ(child.wait().status, 0);
  EXPECT_EQ(Beacon::Util::readPidCmdline(quietHandler(), child.pid()), "");
}

TEST(VersionedRef, PrintsValueThenVersionInDecimal) {
  std::ostringstream text;
  text << std::hex << Mem::VersionedRef<unsigned>{3, 1024} << ' ' << 255;
  EXPECT_EQ(text.str(), "1024 (v3) ff");
}

TEST(Sequence, PrintsDecimalWhateverTheStreamBase) {
  std::ostringstream text;
  text << std::hex << std::setfill('0') << Tock::Sequence{18446744073709551615ULL} << ' ' << 255;
  EXPECT_EQ(text.str(), "18446744073709551615 ff");
}

TEST(Time, IsSecondsSinceTheEpoch) {
  double now = Beacon::time();
  EXPECT_GT(now, 1.6e9);
  EXPECT_LE(now, Beacon::time());
}

TEST(MemoryResourceException, CarriesItsText) {
  try {
    Beacon::MemoryResourceException::throwException("remap failed");
    FAIL() << "no exception";
  } catch (const Beacon::MemoryResourceException& e) {
    EXPECT_STREQ(e.what(), "remap failed");
  }
}

class OpenRegularFile : public ::testing::Test {
 protected:
  HeronTest::TempDir dir;
};

TEST_F(OpenRegularFile, OpensARegularFileReadOnly) {
  const std::string path = dir.path() + "/plain";
  { std::ofstream(path) << "x"; }
  std::string error;
  struct stat status {};
  const int fd = Beacon::Util::openRegularFile(path, error, &status);
  ASSERT_GE(fd, 0) << error;
  EXPECT_EQ(status.st_size, 1);
  EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  ::close(fd);
}

TEST_F(OpenRegularFile, MissingFileGivesTheSystemText) {
  std::string error;
  EXPECT_EQ(Beacon::Util::openRegularFile(dir.path() + "/none", error), -1);
  EXPECT_EQ(error, std::strerror(ENOENT));
}

// A FIFO with no writer would block an ordinary open for ever.
TEST_F(OpenRegularFile, FifoIsRefusedWithoutBlocking) {
  const std::string path = dir.path() + "/fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0);
  std::string error;
  EXPECT_EQ(Beacon::Util::openRegularFile(path, error), -1);
  EXPECT_EQ(error, "not a regular file");
}

TEST_F(OpenRegularFile, DirectoryIsRefused) {
  std::string error;
  EXPECT_EQ(Beacon::Util::openRegularFile(dir.path(), error), -1);
  EXPECT_EQ(error, "not a regular file");
}

}  // namespace

namespace {

TEST(EscapeText, PrintableAsciiStaysAsItIs) {
  EXPECT_EQ(Beacon::Util::escapeText("md/eu/quotes 1-2_3"), "md/eu/quotes 1-2_3");
}

TEST(EscapeText, ControlCharactersBecomeEscapes) {
  EXPECT_EQ(Beacon::Util::escapeText("\x1b]0;pwned\x07\x1b[2J\n"), "\\x1b]0;pwned\\x07\\x1b[2J\\n");
  EXPECT_EQ(Beacon::Util::escapeText(std::string("a\tb\rc\0d", 7)), "a\\tb\\rc\\x00d");
}

TEST(EscapeText, BackslashAndHighBytesAreEscaped) {
  EXPECT_EQ(Beacon::Util::escapeText("a\\012b"), "a\\\\012b");
  EXPECT_EQ(Beacon::Util::escapeText("\x7f\x80\xff"), "\\x7f\\x80\\xff");
}

}  // namespace

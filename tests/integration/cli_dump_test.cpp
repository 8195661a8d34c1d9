// The dump road over tables that heron-sim made: both readers initialised,
// the statistics section, region and queue dumps, and the output file that
// heron shares with the region scanner. The region scanner's own formats
// belong to the region library; these tests pin what the front end adds
// around them. Every test here needs a table with its allocator (`quarry`)
// and queue (`relay.1`) files; where heron-sim does not make them yet, the
// tests are skipped.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

#include "HeronScanner.h"
#include "SharedMem/OwnerFile.h"
#include "integration/CliSupport.h"

namespace HeronTest {
namespace {

const char* const kTableNameTab = "Table Name: tab\n\n";

// One relay file's header fields, read from the file as the documented
// layout places them.
struct RelayFields {
  std::uint64_t magic = 0;
  std::uint32_t version = 0;
  std::uint16_t emberPid = 0;
  std::uint16_t emberInstance = 0;
  std::uint64_t epoch[2] = {0, 0};
  std::uint32_t connectedReaders = 0;
  std::uint32_t tableVersion = 0;
  std::uint32_t currentTable = 0;
  std::uint64_t latestWriterSequence = 0;
  std::uint32_t notificationsVersion = 0;
  std::uint32_t capacity = 0;
  std::uint32_t currentPos = 0;
};

template <typename T>
T at(const std::string& bytes, std::size_t offset) {
  T value{};
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

RelayFields readRelay(const std::string& path) {
  std::string bytes = readFile(path);
  RelayFields fields;
  if (bytes.size() < 88) {
    ADD_FAILURE() << path << " holds " << bytes.size() << " bytes";
    return fields;
  }
  fields.magic = at<std::uint64_t>(bytes, 0);
  fields.version = at<std::uint32_t>(bytes, 8);
  fields.emberPid = at<std::uint16_t>(bytes, 12);
  fields.emberInstance = at<std::uint16_t>(bytes, 14);
  fields.epoch[0] = at<std::uint64_t>(bytes, 16);
  fields.epoch[1] = at<std::uint64_t>(bytes, 24);
  fields.connectedReaders = at<std::uint32_t>(bytes, 32);
  fields.tableVersion = at<std::uint32_t>(bytes, 40);
  fields.currentTable = at<std::uint32_t>(bytes, 44);
  fields.latestWriterSequence = at<std::uint64_t>(bytes, 64);
  fields.notificationsVersion = at<std::uint32_t>(bytes, 72);
  fields.capacity = at<std::uint32_t>(bytes, 76);
  fields.currentPos = at<std::uint32_t>(bytes, 80);
  return fields;
}

bool patch32(const std::string& path, std::size_t offset, std::uint32_t value) {
  int fd = ::open(path.c_str(), O_WRONLY);
  if (fd < 0) {
    return false;
  }
  bool ok = ::pwrite(fd, &value, sizeof value, static_cast<off_t>(offset)) == static_cast<ssize_t>(sizeof value);
  ::close(fd);
  return ok;
}

std::string hex(std::uint64_t value, int width = 0) {
  char text[32];
  std::snprintf(text, sizeof text, "%0*llx", width, static_cast<unsigned long long>(value));
  return text;
}

// One file's header lines.
std::string individualBlock(const RelayFields& f) {
  std::string magicText(reinterpret_cast<const char*>(&f.magic), 8);
  return "\n\t\tMagic: 0x" + hex(f.magic) + " (\"" + magicText + "\")\n" + "\t\tVersion: " + std::to_string(f.version) +
         "\n" + "\t\tEmber: " + std::to_string(f.emberPid) + "." + std::to_string(f.emberInstance) +
         " (pid: " + std::to_string(f.emberPid) + " instanceId: " + std::to_string(f.emberInstance) + ")\n" +
         "\t\tNotifications: " + std::to_string(f.capacity) + " (v" + std::to_string(f.notificationsVersion) + ")" +
         "\n\t\tCurrent position: " + std::to_string(f.currentPos) + "\n";
}

// The "Relay headers:" block for the two files as they are now.
std::string relayBlock(const std::string& table) {
  RelayFields p = readRelay(table + "/relay.1");
  RelayFields s = readRelay(table + "/relay.2");
  return "Relay headers: (88 bytes in primary, 88 bytes in secondary)\n"
         "\tepoch[ PRIMARY ]: " +
         std::to_string(p.epoch[0]) + "\n\tepoch[ SECONDARY ]: " + std::to_string(p.epoch[1]) +
         "\n\tLatest writer sequence:" + std::to_string(p.latestWriterSequence) +
         "\n\tNumber of connected readers: " + std::to_string(p.connectedReaders) +
         "\n\tCurrent table: " + (p.currentTable != 0 ? "Secondary" : "Primary") + " (version: 0x" +
         hex(p.tableVersion, 8) + ")\n" + "\tPrimary:" + individualBlock(p) + "\tSecondary:" + individualBlock(s) +
         "\n";
}

std::string ownerBlock(const std::string& table) {
  Beacon::Platform::DebugHandler handler("DumpTest", 0);
  SharedMem::OwnerFile owner(handler, Mem::RootPath(table), false);
  SharedMem::OwnerFile::Header header{};
  EXPECT_TRUE(owner.header(header));
  return header.toPrettyString() + "\n";
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

const char* const kActivePrimary = "Primary relay queue (active)\n";
const char* const kBackupSecondary = "Secondary relay queue (backup)\n";

class CliDump : public CliTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(root.create("tab"));
    table = root.file("tab");
    ASSERT_TRUE(exists(table + "/quarry") && exists(table + "/relay.1"))
        << "heron-sim create made no quarry or relay.1 file";
  }
  // The statistics section up to the region scanner's own part.
  std::string statisticsPrefix() const { return ownerBlock(table) + relayBlock(table); }

  std::string table;
  TempRoot outputs;
};

TEST_F(CliDump, NoArgumentsWithOneTableSetsUpBothReadersAndPrintsNothing) {
  EXPECT_TRUE(same(heron({}), "", kTableNameTab, 0));
}

TEST_F(CliDump, NoDumpFlagsPrintsNothing) {
  EXPECT_TRUE(same(heron({"tab"}), "", kTableNameTab, 0));
  EXPECT_TRUE(same(heron({"-e", "-O", "tab"}), "", kTableNameTab, 0));
}

TEST_F(CliDump, StatisticsSectionOrder) {
  RunResult result = heron({"-s", "tab"});
  EXPECT_TRUE(same(result, result.out, kTableNameTab, 0));
  std::string prefix = statisticsPrefix();
  EXPECT_TRUE(startsWith(result.out, prefix)) << result.out << "\nexpected to begin with\n" << prefix;
  EXPECT_GT(result.out.size(), prefix.size()) << "no allocator statistics after the relay headers";
}

TEST_F(CliDump, DetailAlonePrintsTheStatisticsSection) {
  RunResult result = heron({"-d", "tab"});
  EXPECT_TRUE(same(result, result.out, kTableNameTab, 0));
  EXPECT_TRUE(startsWith(result.out, statisticsPrefix())) << result.out;
}

TEST_F(CliDump, StatisticsWithQueuesPrintsTheStatisticsOnly) {
  RunResult stats = heron({"-s", "tab"});
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"-s", "-q", "tab"}, std::vector<std::string>{"-s", "-a", "-e", "-r", "1", "tab"},
        std::vector<std::string>{"-q", "-R", "-s", "tab"}}) {
    RunResult result = heron(args);
    EXPECT_TRUE(same(result, result.out, kTableNameTab, 0));
    EXPECT_TRUE(startsWith(result.out, statisticsPrefix())) << result.out;
    EXPECT_EQ(result.out.find("relay queue ("), std::string::npos) << result.out;
    EXPECT_EQ(result.out.size(), stats.out.size()) << result.out;
  }
}

TEST_F(CliDump, TableVersionIsZeroFilledHexadecimal) {
  ASSERT_TRUE(patch32(table + "/relay.1", 40, 0x1f));
  RunResult result = heron({"-s", "tab"});
  EXPECT_NE(result.out.find("\tCurrent table: Primary (version: 0x0000001f)\n\tPrimary:\n"), std::string::npos)
      << result.out;
  EXPECT_TRUE(startsWith(result.out, statisticsPrefix())) << result.out;
}

TEST_F(CliDump, CurrentTableOtherThanZeroIsSecondary) {
  ASSERT_TRUE(patch32(table + "/relay.1", 44, 2));
  RunResult result = heron({"-s", "tab"});
  EXPECT_NE(result.out.find("\tCurrent table: Secondary (version: 0x"), std::string::npos) << result.out;
}

TEST_F(CliDump, QueuesAloneShowTheActiveTableOnly) {
  RunResult result = heron({"-q", "tab"});
  EXPECT_TRUE(same(result, result.out, kTableNameTab, 0));
  EXPECT_TRUE(startsWith(result.out, kActivePrimary)) << result.out;
  EXPECT_EQ(result.out.find("Secondary relay queue"), std::string::npos) << result.out;
  EXPECT_EQ(result.out.find("Relay headers:"), std::string::npos) << result.out;
}

TEST_F(CliDump, QueuesWithEmptyEntriesShowBothTablesWhole) {
  RunResult result = heron({"-q", "-e", "tab"});
  EXPECT_TRUE(same(result, result.out, kTableNameTab, 0));
  EXPECT_TRUE(startsWith(result.out, kActivePrimary)) << result.out;
  EXPECT_NE(result.out.find(kBackupSecondary), std::string::npos) << result.out;
}

TEST_F(CliDump, RegionsComeBeforeTheActiveQueue) {
  RunResult regions = heron({"-R", "tab"});
  RunResult both = heron({"-R", "-q", "tab"});
  EXPECT_TRUE(same(both, both.out, kTableNameTab, 0));
  EXPECT_TRUE(startsWith(both.out, regions.out + kActivePrimary)) << both.out;
  EXPECT_EQ(both.out.find("Secondary relay queue"), std::string::npos) << both.out;
}

TEST_F(CliDump, RegionsWithEmptyEntriesComeBeforeBothQueues) {
  RunResult regions = heron({"-R", "-e", "tab"});
  RunResult both = heron({"-R", "-q", "-e", "tab"});
  EXPECT_TRUE(same(both, both.out, kTableNameTab, 0));
  EXPECT_TRUE(startsWith(both.out, regions.out + kActivePrimary)) << both.out;
  EXPECT_NE(both.out.find(kBackupSecondary), std::string::npos) << both.out;
}

TEST_F(CliDump, AllIsRegionsAndQueues) {
  RunResult regions = heron({"-R", "tab"});
  RunResult all = heron({"-a", "tab"});
  EXPECT_TRUE(same(all, all.out, kTableNameTab, 0));
  EXPECT_TRUE(startsWith(all.out, regions.out + kActivePrimary)) << all.out;
}

TEST_F(CliDump, OneRegionIdAloneDumpsRegions) {
  RunResult chosen = heron({"-r", "7", "tab"});
  EXPECT_TRUE(same(chosen, chosen.out, kTableNameTab, 0));
  EXPECT_TRUE(same(heron({"-R", "-r", "7", "tab"}), chosen.out, kTableNameTab, 0));
}

TEST_F(CliDump, RegionIdThatIsNotANumberIsZero) {
  RunResult zero = heron({"-r", "0", "tab"});
  EXPECT_TRUE(same(heron({"-r", "x", "tab"}), zero.out, kTableNameTab, 0));
  EXPECT_TRUE(same(heron({"-r", "0", "-r", "x", "tab"}), zero.out, kTableNameTab, 0));
}

TEST_F(CliDump, RegionIdKeepsTrailingTextAndWrapsNegatives) {
  RunResult seven = heron({"-r", "7", "tab"});
  EXPECT_TRUE(same(heron({"-r", "7abc", "tab"}), seven.out, kTableNameTab, 0));
  EXPECT_TRUE(same(heron({"-r", " +7", "tab"}), seven.out, kTableNameTab, 0));
  RunResult last = heron({"-r", "4294967295", "tab"});
  EXPECT_TRUE(same(last, last.out, kTableNameTab, 0));
  EXPECT_TRUE(same(heron({"-r", "-1", "tab"}), last.out, kTableNameTab, 0));
  RunResult wrapped = heron({"-r", "2147483648", "tab"});
  EXPECT_TRUE(same(heron({"-r", "-2147483648", "tab"}), wrapped.out, kTableNameTab, 0));
}

TEST_F(CliDump, RegionIdOutsideThirtyTwoBitsIsRefused) {
  // Cut to 32 bits, 4294967297 would name region 1.
  for (const char* id : {"4294967296", "4294967297", "-2147483649", "99999999999999999999", "-99999999999999999999"}) {
    SCOPED_TRACE(id);
    EXPECT_TRUE(same(heron({"-r", id, "tab"}), "", std::string("Invalid region id ") + id + ": out of range\n", 1));
  }
  // Refused while parsing, like a bad pid: later options are not looked at.
  EXPECT_TRUE(same(heron({"-r", "4294967297", "-h"}), "", "Invalid region id 4294967297: out of range\n", 1));
}

TEST_F(CliDump, RelayReaderFailureAfterTheRegionScanner) {
  ASSERT_EQ(::unlink((table + "/relay.1").c_str()), 0);
  EXPECT_TRUE(
      same(heron({"-s", "tab"}), "", std::string(kTableNameTab) + "Failed to initialize RelayReaderGeneric\n", 1));
}

TEST_F(CliDump, NoDumpFlagsStillSetUpTheRelayReader) {
  ASSERT_EQ(::unlink((table + "/relay.1").c_str()), 0);
  EXPECT_TRUE(same(heron({"tab"}), "", std::string(kTableNameTab) + "Failed to initialize RelayReaderGeneric\n", 1));
}

TEST_F(CliDump, MissingSecondaryFailsTheRelayReader) {
  ASSERT_EQ(::unlink((table + "/relay.2").c_str()), 0);
  EXPECT_TRUE(
      same(heron({"-q", "tab"}), "", std::string(kTableNameTab) + "Failed to initialize RelayReaderGeneric\n", 1));
}

TEST_F(CliDump, InvalidRelayHeaderIsExplainedThenFails) {
  ASSERT_TRUE(patch32(table + "/relay.1", 0, 0x21212121));
  RunResult result = heron({"-s", "tab"});
  EXPECT_TRUE(same(result, "", result.err, 1));
  EXPECT_TRUE(startsWith(result.err, std::string(kTableNameTab) + "Relay ")) << result.err;
  std::string tail = " validation failed: ";
  EXPECT_NE(result.err.find(tail), std::string::npos) << result.err;
  std::string last = "\nFailed to initialize RelayReaderGeneric\n";
  ASSERT_GE(result.err.size(), last.size());
  EXPECT_EQ(result.err.substr(result.err.size() - last.size()), last) << result.err;
}

TEST_F(CliDump, StatisticsInAnOutputFileMatchStandardOutput) {
  std::string file = outputs.file("stats.txt");
  ASSERT_TRUE(writeFile(file, std::string(100000, 'x')));
  RunResult toStdout = heron({"-d", "tab"});
  EXPECT_TRUE(same(heron({"-d", "-f", file, "tab"}), "", kTableNameTab, 0));
  EXPECT_EQ(readFile(file), toStdout.out);
}

TEST_F(CliDump, RegionsThenQueuesInAnOutputFile) {
  std::string file = outputs.file("dump.txt");
  ASSERT_TRUE(writeFile(file, std::string(100000, 'x')));
  RunResult regions = heron({"-R", "tab"});
  EXPECT_TRUE(same(heron({"-R", "-q", "-f", file, "tab"}), "", kTableNameTab, 0));
  std::string text = readFile(file);
  EXPECT_TRUE(startsWith(text, regions.out + kActivePrimary)) << text;
  EXPECT_EQ(text.find('x' + std::string(50, 'x')), std::string::npos) << "old contents left in the file";
}

// An owner file that cannot be read makes no table for the finder, so this
// calls the table printer directly, as the front end would.
TEST_F(CliDump, UnreadableOwnerHeaderIsReportedAndTheDumpGoesOn) {
  std::string expected = relayBlock(table);
  ASSERT_EQ(::truncate((table + "/owner").c_str(), 10), 0);
  ::setenv("HERON_ROOT", root.path().c_str(), 1);
  std::string file = outputs.file("owner.txt");
  int status = printTable(file, "tab", false, true, false, {}, false, false, false, false, Heron::Text);
  ::unsetenv("HERON_ROOT");
  EXPECT_EQ(status, 0);
  std::string text = readFile(file);
  EXPECT_TRUE(startsWith(text, "OwnerFile information unavailable\n" + expected)) << text;
}

// The relay block switches the stream to zero-filled hexadecimal for the
// table version; the caller's format must come back afterwards.
TEST_F(CliDump, StreamFormatIsRestoredAfterTheRelayBlock) {
  ::setenv("HERON_ROOT", root.path().c_str(), 1);
  std::ostringstream captured;
  std::streambuf* original = std::cout.rdbuf(captured.rdbuf());
  const std::ios_base::fmtflags flags = std::cout.flags();
  const char fill = std::cout.fill();
  std::cout << std::dec << std::setfill(' ');
  int status = printTable("", "tab", false, true, false, {}, false, false, false, false, Heron::Text);
  const std::ios_base::fmtflags after = std::cout.flags();
  const char fillAfter = std::cout.fill();
  std::cout << 255;
  std::cout.flags(flags);
  std::cout.fill(fill);
  std::cout.rdbuf(original);
  ::unsetenv("HERON_ROOT");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(after & std::ios_base::basefield, std::ios_base::dec);
  EXPECT_EQ(fillAfter, ' ');
  std::string text = captured.str();
  EXPECT_NE(text.find("(version: 0x"), std::string::npos) << text;
  EXPECT_TRUE(text.size() >= 3 && text.compare(text.size() - 3, 3, "255") == 0) << text;
}

}  // namespace
}  // namespace HeronTest

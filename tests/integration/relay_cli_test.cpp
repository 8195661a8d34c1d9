// `heron -s`, `-q`, `-q -e`, `-a` end to end on tables made by heron-sim and
// changed by the queue writer or by hand: the relay headers block, the
// queue dump, and the messages and statuses for broken queue files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Quarry/Offset.h"
#include "Relay/RelayWriter.h"
#include "support/Run.h"
#include "unit/relay/RelayBrokenQueues.h"
#include "unit/relay/RelayTestFiles.h"

namespace {

using RelayTest::Header;
using RelayTest::Table;

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

using Result = HeronTest::RunResult;

// The reports that read the queues, and the arguments for one table.
const std::vector<std::vector<std::string>> kQueueReports{{"-s"}, {"-q"}, {"-q", "-e"}};

std::vector<std::string> withTable(std::vector<std::string> options, const std::string& table) {
  options.push_back(table);
  return options;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

class RelayCli : public ::testing::Test {
 protected:
  // Creates table `name` with heron-sim; false when the table cannot be
  // dumped end to end (no region allocator file).
  bool create(const std::string& name, unsigned capacity) {
    // heron-sim refuses a capacity of 0 (no writer could use it); such queue
    // files are made here, through the runtime, in place of its own.
    const unsigned simCapacity = capacity == 0 ? 1 : capacity;
    Result made = run("heron-sim", {"create", name, "--capacity", std::to_string(simCapacity)});
    EXPECT_EQ(made.status, 0) << made.err;
    if (capacity == 0) {
      std::string error;
      ::unlink((dir(name) + "/relay.1").c_str());
      ::unlink((dir(name) + "/relay.2").c_str());
      EXPECT_TRUE(Relay::RelayWriter::createFiles(root(name), 0, SharedMem::EmberId{1, 0}, error)) << error;
    }
    struct stat st {};
    return ::stat((dir(name) + "/quarry").c_str(), &st) == 0;
  }
  std::string dir(const std::string& name) const { return temp.path() + "/" + name; }
  Mem::RootPath root(const std::string& name) const { return Mem::RootPath(dir(name)); }

  Result run(const std::string& program, const std::vector<std::string>& args) {
    std::vector<std::string> argv{HeronTest::binary(program)};
    argv.insert(argv.end(), args.begin(), args.end());
    return HeronTest::run(argv, {"HERON_ROOT=" + temp.path()});
  }
  Result heron(const std::vector<std::string>& args) { return run("heron", args); }
  // heron ARGS, which must exit with status 0.
  Result heronOk(const std::vector<std::string>& args) {
    Result result = heron(args);
    EXPECT_TRUE(result.exited()) << result.describe();
    EXPECT_EQ(result.status, 0) << result.err;
    return result;
  }
  // Opens the queue of a table that heron-sim created.
  static ::testing::AssertionResult opened(Relay::RelayWriter& writer, std::string& error) {
    if (writer.open(error)) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << error;
  }
  static ::testing::AssertionResult opened(Relay::RelayWriter& writer) {
    std::string error;
    return opened(writer, error);
  }

  // The ember of the file as its header holds it.
  SharedMem::EmberId ember(const std::string& name) {
    Header header{};
    std::ifstream in(dir(name) + "/relay.1", std::ios::binary);
    in.read(reinterpret_cast<char*>(&header), sizeof header);
    return header.ember;
  }

  // The relay headers block of a statistics section: from its first line
  // to the empty line that ends it.
  static std::string headersBlock(const std::string& out) {
    std::size_t start = out.find("Relay headers:");
    std::size_t secondary = out.find("\tSecondary:", start == std::string::npos ? 0 : start);
    std::size_t end = out.find("\n\n", secondary == std::string::npos ? 0 : secondary);
    if (start == std::string::npos || secondary == std::string::npos || end == std::string::npos) {
      return out;
    }
    return out.substr(start, end + 2 - start);
  }

  // The lines of the relay headers block above the two tables' own.
  static std::string headersOpening(unsigned primaryEpoch, unsigned secondaryEpoch, unsigned sequence, unsigned readers,
                                    const std::string& current) {
    return "Relay headers: (88 bytes in primary, 88 bytes in secondary)\n\tepoch[ PRIMARY ]: " +
           std::to_string(primaryEpoch) + "\n\tepoch[ SECONDARY ]: " + std::to_string(secondaryEpoch) +
           "\n\tLatest writer sequence:" + std::to_string(sequence) +
           "\n\tNumber of connected readers: " + std::to_string(readers) + "\n\tCurrent table: " + current + "\n";
  }

  static std::string individual(SharedMem::EmberId id, const std::string& notifications, unsigned position) {
    return RelayTest::individualHeader(id, notifications, position);
  }

  RelayTest::TempDir temp;
};

}  // namespace

constexpr const char* kNoAllocator = "heron-sim create made no quarry file: heron cannot dump a table end to end";

// --- the relay headers block ----------------------------------------------

TEST_F(RelayCli, StatisticsShowTheHeadersOfAFreshTable) {
  ASSERT_TRUE(create("fresh", 3)) << kNoAllocator;
  Result result = heronOk({"-s", "fresh"});
  SharedMem::EmberId id = ember("fresh");
  EXPECT_EQ(headersBlock(result.out), headersOpening(0, 0, 0, 0, "Primary (version: 0x00000000)") +
                                          "\tPrimary:" + individual(id, "3 (v1)", 0) +
                                          "\tSecondary:" + individual(id, "3 (v1)", 0) + "\n");
  EXPECT_EQ(result.out.find("relay queue"), std::string::npos);
}

TEST_F(RelayCli, StatisticsShowVersion0x1fAndTheSecondaryAfterWrites) {
  ASSERT_TRUE(create("switched", 1)) << kNoAllocator;
  {
    Relay::RelayWriter writer(RelayTest::handler(), root("switched"));
    ASSERT_TRUE(opened(writer));
    for (int i = 0; i < 32; ++i) {
      writer.append(Quarry::Offset::encode(1, 1), 8);
    }
    writer.setConnectedReaders(2);
  }
  Result result = heronOk({"-s", "switched"});
  SharedMem::EmberId id = ember("switched");
  EXPECT_EQ(headersBlock(result.out), headersOpening(15, 16, 32, 2, "Secondary (version: 0x0000001f)") +
                                          "\tPrimary:" + individual(id, "1 (v1)", 1) +
                                          "\tSecondary:" + individual(id, "1 (v1)", 1) + "\n");
}

TEST_F(RelayCli, StatisticsCallCurrentTableTwoSecondaryAndPrint0x1aZeroFilled) {
  ASSERT_TRUE(create("odd", 2)) << kNoAllocator;
  ASSERT_TRUE(RelayTest::pokeWord(dir("odd") + "/relay.1", 40, 0x1a));
  ASSERT_TRUE(RelayTest::pokeWord(dir("odd") + "/relay.1", 44, 2));
  Result result = heronOk({"-d", "odd"});
  EXPECT_NE(headersBlock(result.out).find("\tCurrent table: Secondary (version: 0x0000001a)\n\tPrimary:\n"),
            std::string::npos)
      << result.out;
}

TEST_F(RelayCli, StatisticsAfterAGrowShowTheNewNotifications) {
  ASSERT_TRUE(create("grown", 2)) << kNoAllocator;
  {
    Relay::RelayWriter writer(RelayTest::handler(), root("grown"));
    std::string error;
    ASSERT_TRUE(opened(writer, error));
    ASSERT_TRUE(writer.grow(40, error)) << error;
    writer.append(Quarry::Offset::encode(1, 1), 8);
  }
  Result result = heron({"-s", "grown"});
  SharedMem::EmberId id = ember("grown");
  EXPECT_NE(
      headersBlock(result.out)
          .find("\tPrimary:" + individual(id, "40 (v2)", 1) + "\tSecondary:" + individual(id, "40 (v2)", 0) + "\n"),
      std::string::npos)
      << result.out;
}

TEST_F(RelayCli, StatisticsWithQueuesPrintNoQueue) {
  ASSERT_TRUE(create("both", 2)) << kNoAllocator;
  Result result = heronOk({"-s", "-q", "both"});
  EXPECT_NE(result.out.find("Relay headers:"), std::string::npos);
  EXPECT_EQ(result.out.find("relay queue"), std::string::npos);
  EXPECT_EQ(result.out.find("Relay scanned in"), std::string::npos);
}

// --- the queue dump -------------------------------------------------------

TEST_F(RelayCli, QueueDumpShowsTheLiveSlotsOfTheActiveTable) {
  ASSERT_TRUE(create("live", 4)) << kNoAllocator;
  {
    Relay::RelayWriter writer(RelayTest::handler(), root("live"));
    ASSERT_TRUE(opened(writer));
    for (std::uint32_t i = 1; i <= 7; ++i) {
      writer.append(Quarry::Offset::encode(2, i), 10 * i);
    }
    ASSERT_TRUE(writer.tombstone(std::uint64_t{6}));
  }
  Result result = heronOk({"-q", "live"});
  EXPECT_EQ(RelayTest::beforeTiming(result.out),
            RelayTest::queueHeading("Secondary", "active", "4 (v1)", 3, 5, 8, 1) +
                "pos: 0           |  seq: 5           offset: 0x00200005 (2:5)           size: 50\n"
                "pos: 2           |  seq: 7           offset: 0x00200007 (2:7)           size: 70\n"
                "\n");
  EXPECT_TRUE(std::regex_match(RelayTest::timing(result.out), RelayTest::timingZero())) << result.out;
  EXPECT_EQ(result.err, "Table Name: live\n\n");
}

TEST_F(RelayCli, QueueDumpWithEmptyEntriesShowsBothTablesWhole) {
  ASSERT_TRUE(create("whole", 2)) << kNoAllocator;
  {
    Relay::RelayWriter writer(RelayTest::handler(), root("whole"));
    ASSERT_TRUE(opened(writer));
    writer.append(Quarry::Offset::encode(1, 1), 1);
    writer.append(Quarry::Offset::encode(1, 2), 2);
    writer.append(Quarry::Offset::encode(1, 3), 3);
    ASSERT_TRUE(writer.tombstone(std::uint64_t{1}));
  }
  Result result = heronOk({"-q", "-e", "whole"});
  EXPECT_EQ(RelayTest::beforeTiming(result.out),
            RelayTest::queueHeading("Primary", "backup", "2 (v1)", 2, 1, 3, 0) +
                "pos: 0           |  seq: 1           offset: 0xffffffff (tombstoned)    size: 1\n"
                "pos: 1           |  seq: 2           offset: 0x00100002 (1:2)           size: 2\n"
                "\n" +
                RelayTest::queueHeading("Secondary", "active", "2 (v1)", 1, 3, 4, 1) +
                "pos: 0           |  seq: 3           offset: 0x00100003 (1:3)           size: 3\n"
                "pos: 1           |  seq: 0           offset: 0x00000000 (0:0)           size: 0\n"
                "\n");
  EXPECT_TRUE(std::regex_match(RelayTest::timing(result.out), RelayTest::timingZero())) << result.out;
}

TEST_F(RelayCli, QueueDumpOfCapacityZeroShowsHeadersOnly) {
  ASSERT_TRUE(create("empty", 0)) << kNoAllocator;
  Result result = heronOk({"-q", "-e", "empty"});
  EXPECT_EQ(RelayTest::beforeTiming(result.out),
            RelayTest::queueHeading("Primary", "active", "0 (v1)", 0, 1, 1, 0) + "\n" +
                RelayTest::queueHeading("Secondary", "backup", "0 (v1)", 0, 1, 1, 0) + "\n");
  EXPECT_TRUE(std::regex_match(RelayTest::timing(result.out), RelayTest::timingZero())) << result.out;
}

TEST_F(RelayCli, QueueDumpPadsPositionSevenWithNineBlanks) {
  ASSERT_TRUE(create("eight", 8)) << kNoAllocator;
  {
    Relay::RelayWriter writer(RelayTest::handler(), root("eight"));
    ASSERT_TRUE(opened(writer));
    for (std::uint32_t i = 0; i < 8; ++i) {
      writer.append(Quarry::Offset::encode(1, i), i);
    }
  }
  Result result = heron({"-q", "eight"});
  EXPECT_NE(result.out.find("\npos: 7" + std::string(9, ' ') + "  |  seq: 8" + std::string(9, ' ') +
                            "  offset: 0x00100007 (1:7)           size: 7\n"),
            std::string::npos)
      << result.out;
}

TEST_F(RelayCli, DumpAllEndsWithTheActiveQueue) {
  ASSERT_TRUE(create("all", 2)) << kNoAllocator;
  Result result = heronOk({"-a", "all"});
  std::size_t queue = result.out.find("Primary relay queue (active)\n");
  ASSERT_NE(queue, std::string::npos) << result.out;
  EXPECT_EQ(result.out.find("Secondary relay queue"), std::string::npos);
  EXPECT_TRUE(std::regex_match(RelayTest::timing(result.out), RelayTest::timingZero())) << result.out;
}

TEST_F(RelayCli, QueueDumpToAFile) {
  ASSERT_TRUE(create("tofile", 1)) << kNoAllocator;
  // Outside the collection root: heron refuses to write into it.
  RelayTest::TempDir outputs;
  std::string file = outputs.path() + "/dump.txt";
  Result result = heronOk({"-q", "-f", file, "tofile"});
  EXPECT_EQ(result.out, "");
  std::string text = slurp(file);
  EXPECT_EQ(text.rfind("Primary relay queue (active)\n", 0), 0U) << text;
  EXPECT_TRUE(std::regex_match(RelayTest::timing(text), RelayTest::timingZero())) << text;
}

// --- broken queue files: a message and status 1, never a signal ----------

// Every broken file of the shared table: the reader's message, if it has
// one, then "Failed to initialize RelayReaderGeneric", status 1 and nothing on
// standard output, for the statistics and the queue dump alike.
class RelayCliBrokenQueue : public RelayCli, public testing::WithParamInterface<RelayTest::BrokenQueue> {};

TEST_P(RelayCliBrokenQueue, IsReportedWithStatusOne) {
  ASSERT_TRUE(create("broken", 2)) << kNoAllocator;
  ASSERT_TRUE(GetParam().apply(dir("broken")));
  for (const std::vector<std::string>& options : kQueueReports) {
    Result result = heron(withTable(options, "broken"));
    const std::string shown = joined(options);
    ASSERT_TRUE(result.exited()) << shown;
    EXPECT_EQ(result.status, 1) << shown;
    EXPECT_EQ(result.out, "") << shown;
    EXPECT_EQ(result.err, "Table Name: broken\n\n" + GetParam().expectedMessage(dir("broken")) +
                              "Failed to initialize RelayReaderGeneric\n")
        << shown;
  }
}

INSTANTIATE_TEST_SUITE_P(RelayBrokenQueues, RelayCliBrokenQueue, testing::ValuesIn(RelayTest::kBrokenQueues),
                         RelayTest::BrokenQueueName());

TEST_F(RelayCli, RandomBytesNeverEndInASignal) {
  ASSERT_TRUE(create("noise", 4)) << kNoAllocator;
  std::mt19937 rng(7);
  for (int round = 0; round < 40; ++round) {
    std::vector<char> bytes(std::uniform_int_distribution<std::size_t>(0, 400)(rng));
    for (char& byte : bytes) {
      byte = static_cast<char>(rng());
    }
    // Every fourth round keeps a valid magic and version: the capacity and
    // the switch words are then random.
    if (round % 4 == 0 && bytes.size() >= 12) {
      Header header = RelayTest::validHeader(0);
      std::memcpy(bytes.data(), &header, 12);
    }
    ASSERT_TRUE(RelayTest::writeFile(dir("noise") + (round % 2 == 0 ? "/relay.1" : "/relay.2"), bytes));
    for (const std::vector<std::string>& options : kQueueReports) {
      Result result = heron(withTable(options, "noise"));
      ASSERT_TRUE(result.exited()) << "round " << round << " " << joined(options) << ": " << result.err;
      EXPECT_TRUE(result.status == 0 || result.status == 1) << result.status;
      if (result.status == 1) {
        EXPECT_NE(result.err.find("Failed to initialize RelayReaderGeneric\n"), std::string::npos) << result.err;
      }
    }
  }
}

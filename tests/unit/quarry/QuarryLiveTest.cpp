// A writer process allocates, releases, creates and deletes regions at full
// speed while scanners read the table over and over.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

#include "Quarry/QuarryReader.h"
#include "QuarryFixture.h"
#include "readers/QuarryHelperScanner.h"
#include "support/Child.h"
#include "support/Ended.h"
#include "support/LiveQuarryWriter.h"

using Quarry::Offset;
using Scanner = Quarry::QuarryScannerBase<Quarry::NoMapScanner>;

using HeronTest::payload;
using HeronTest::payloadValid;

class QuarryLiveTest : public QuarryTest::TableDir {
 protected:
  void TearDown() override {
    ::unlink(outputPath().c_str());
    QuarryTest::TableDir::TearDown();
  }
};

TEST_F(QuarryLiveTest, PayloadCheckRejectsForeignText) {
  EXPECT_TRUE(payloadValid(payload(5)));
  EXPECT_FALSE(payloadValid(payload(5).substr(0, 8) + payload(6).substr(8)));
  EXPECT_FALSE(payloadValid("0000000500000000"));
  EXPECT_FALSE(payloadValid(std::string(16, '.')));
}

TEST_F(QuarryLiveTest, ScannersReadAFullSpeedWriterWithoutCrashOrForeignEntries) {
  region(16, 64);
  region(64, 64);
  writer_.reset();
  HeronTest::Child writer([&] { return HeronTest::runLiveWriter(root_, std::chrono::milliseconds(1500)); });
  ASSERT_TRUE(writer.started()) << writer.error();
  unsigned scans = 0;
  unsigned entries = 0;
  while (writer.running()) {
    ::unlink(outputPath().c_str());
    {
      Scanner scanner(handler_, root_, outputPath());
      ASSERT_TRUE(scanner.initialize());
      scanner.printStats(true, false);
      scanner.scanRegions({}, false);
      scanner.printStats(false, true);
    }
    {
      Heron::QuarryHelperScanner helper(handler_, root_, "");
      ASSERT_TRUE(helper.initialize());
      Heron::Model::HeaderInfo info;
      helper.fillHeader(info);
      EXPECT_LE(info.occupancyRate, 100U);
    }
    std::istringstream lines(QuarryTest::readFile(outputPath()));
    std::string line;
    while (std::getline(lines, line)) {
      if (line.compare(0, 4, "  0x") != 0) {
        continue;
      }
      const std::size_t open = line.find('|');
      ASSERT_NE(open, std::string::npos) << line;
      const std::string text = line.substr(open + 1, line.size() - open - 2);
      EXPECT_TRUE(payloadValid(text)) << line;
      ++entries;
    }
    ++scans;
  }
  EXPECT_TRUE(HeronTest::endedWell(writer.wait()));
  EXPECT_GT(scans, 1U);
  EXPECT_GT(entries, 0U);
  std::printf("live: %u scans, %u entries checked\n", scans, entries);
}

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

using Quarry::Offset;
using Scanner = Quarry::QuarryScannerBase<Quarry::NoMapScanner>;

namespace {

std::uint32_t check(std::uint32_t sequence) {
  std::uint32_t h = sequence * 2654435761U ^ 0xA5A5A5A5U;
  return h ^ (h >> 15);
}

// 16 printable bytes: the write's sequence number and a check over it, both
// in hex. A torn, zeroed or foreign payload fails the check.
std::string payload(std::uint32_t sequence) {
  char text[17];
  std::snprintf(text, sizeof text, "%08x%08x", sequence, check(sequence));
  return std::string(text, 16);
}

bool payloadValid(const std::string& text) {
  if (text.size() != 16) {
    return false;
  }
  unsigned sequence = 0;
  unsigned sum = 0;
  if (std::sscanf(text.c_str(), "%8x%8x", &sequence, &sum) != 2) {
    return false;
  }
  return payload(sequence) == text;
}

[[noreturn]] void runWriter(const Mem::RootPath& root, std::chrono::milliseconds duration) {
  Beacon::Platform::DebugHandler handler("LiveWriter", 0);
  Quarry::QuarryWriter writer(handler, root);
  std::string error;
  if (!writer.open(error)) {
    ::_exit(2);
  }
  std::mt19937 random(99);
  std::vector<std::uint32_t> live;
  std::uint32_t sequence = 0;
  const std::uint32_t sizes[] = {16, 32, 64, 256};
  const auto end = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < end) {
    const unsigned op = random() % 100;
    std::vector<std::uint32_t> ids = writer.regionIds();
    if (op < 3 || ids.empty()) {
      if (ids.size() < 24) {
        writer.createRegion(sizes[random() % 4], 8 + random() % 120, error);
      }
    } else if (op < 6) {
      writer.deleteRegion(ids[random() % ids.size()]);
    } else if (op < 60) {
      const std::uint32_t id = ids[random() % ids.size()];
      const std::string text = payload(++sequence);
      const std::uint32_t offset = writer.allocate(id, text.data(), text.size());
      if (offset != Offset::TOMBSTONED) {
        live.push_back(offset);
      }
    } else if (op < 75 && !live.empty()) {
      const std::size_t at = random() % live.size();
      const std::string text = payload(++sequence);
      writer.update(live[at], text.data(), text.size());
    } else if (!live.empty()) {
      const std::size_t at = random() % live.size();
      writer.release(live[at]);
      live[at] = live.back();
      live.pop_back();
    }
  }
  ::_exit(0);
}

}  // namespace

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
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    runWriter(root_, std::chrono::milliseconds(1500));
  }
  unsigned scans = 0;
  unsigned entries = 0;
  int status = 0;
  while (::waitpid(child, &status, WNOHANG) == 0) {
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
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_GT(scans, 1U);
  EXPECT_GT(entries, 0U);
  std::printf("live: %u scans, %u entries checked\n", scans, entries);
}

// Seeded random input: 100,000 headers for Header::validate, and 10,000
// queue pairs for the reader's initialize (and a scan when it succeeds):
// random bytes, and valid headers with the magic, version, capacity or file
// size disturbed. The expected verdict comes from an independent model of
// the format; nothing may fault.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>

#include "Relay/RelayReaderGeneric.h"
#include "unit/relay/RelayTestFiles.h"

namespace {

using RelayTest::Header;
using RelayTest::Table;
using Reader = Relay::RelayReaderGeneric<Relay::RelaySlot>;

std::uint64_t readU64(const std::vector<char>& bytes, std::size_t at) {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes.data() + at, 8);
  return value;
}
std::uint32_t readU32(const std::vector<char>& bytes, std::size_t at) {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes.data() + at, 4);
  return value;
}

// What a correct validation says of these file bytes.
// The order is that of the prefixes below.
enum class Verdict { Valid, Short, Magic, Version, Capacity };

Verdict model(const std::vector<char>& bytes) {
  if (bytes.size() < 88) {
    return Verdict::Short;
  }
  if (readU64(bytes, 0) != 0x59414c45524e5248ULL) {
    return Verdict::Magic;
  }
  if (readU32(bytes, 8) != 1) {
    return Verdict::Version;
  }
  if (88ULL + 12ULL * readU32(bytes, 76) > bytes.size()) {
    return Verdict::Capacity;
  }
  return Verdict::Valid;
}

// How the refusal of each verdict begins, in the order of Verdict.
const char* prefix(Verdict verdict) {
  static const char* const kPrefixes[] = {"", "file holds ", "bad magic 0x", "format version ", "capacity of "};
  return kPrefixes[static_cast<int>(verdict)];
}

// One queue file: random bytes, or a valid file disturbed at random.
std::vector<char> randomFile(std::mt19937& rng) {
  std::uniform_int_distribution<int> percent(0, 99);
  if (percent(rng) < 15) {
    std::vector<char> bytes(std::uniform_int_distribution<std::size_t>(0, 300)(rng));
    for (char& byte : bytes) {
      byte = static_cast<char>(rng());
    }
    return bytes;
  }
  unsigned capacity = std::uniform_int_distribution<unsigned>(0, 16)(rng);
  Header header = RelayTest::validHeader(capacity);
  header.notifications.version = std::uniform_int_distribution<unsigned>(0, 3)(rng);
  if (percent(rng) < 5) {
    header.notifications.version = 0xFFFFFFFFU;
  }
  header.currentPos = std::uniform_int_distribution<unsigned>(0, capacity + 2)(rng);
  header.tableVersion = static_cast<std::uint32_t>(rng());
  header.currentTable = std::uniform_int_distribution<unsigned>(0, 2)(rng);
  header.epoch[0] = rng();
  if (percent(rng) < 10) {
    header.magic ^= 1ULL << std::uniform_int_distribution<int>(0, 63)(rng);
  }
  if (percent(rng) < 10) {
    header.version = static_cast<std::uint32_t>(rng() % 4);
  }
  if (percent(rng) < 10) {
    header.notifications.value = static_cast<std::uint32_t>(rng());
  }
  std::size_t size = Header::fileSize(capacity);
  int sizeChoice = percent(rng);
  if (sizeChoice < 10) {
    size = std::uniform_int_distribution<std::size_t>(0, size)(rng);
  } else if (sizeChoice < 20) {
    size += std::uniform_int_distribution<std::size_t>(1, 40)(rng);
  }
  std::vector<char> bytes = RelayTest::fileBytes(header, {}, std::max<std::size_t>(size, 88));
  for (std::size_t i = 84; i < bytes.size(); ++i) {
    bytes[i] = static_cast<char>(rng());
  }
  bytes.resize(size);
  return bytes;
}

bool overwrite(const std::string& path, const std::vector<char>& bytes) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    return false;
  }
  bool ok = ::ftruncate(fd, 0) == 0 &&
            (bytes.empty() || ::pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
  ::close(fd);
  return ok;
}

// Standard error goes to a file for the life of this object.
class StderrToFile {
 public:
  explicit StderrToFile(const std::string& path) {
    std::fflush(stderr);
    saved_ = ::dup(2);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ::dup2(fd, 2);
    ::close(fd);
  }
  ~StderrToFile() {
    std::cerr.flush();
    ::dup2(saved_, 2);
    ::close(saved_);
  }
  StderrToFile(const StderrToFile&) = delete;
  StderrToFile& operator=(const StderrToFile&) = delete;

 private:
  int saved_ = -1;
};

}  // namespace

TEST(RelayRandomInput, ValidateAgreesWithTheFormatOnOneHundredThousandHeaders) {
  std::mt19937 rng(20261122);
  unsigned verdicts[5] = {0, 0, 0, 0, 0};
  for (int i = 0; i < 100000; ++i) {
    std::vector<char> bytes = randomFile(rng);
    Verdict expected = model(bytes);
    ++verdicts[static_cast<int>(expected)];
    // validate reads the 88 bytes of the record; the file size is separate.
    alignas(8) char record[88] = {};
    if (!bytes.empty()) {
      std::memcpy(record, bytes.data(), std::min<std::size_t>(bytes.size(), 88));
    }
    const auto* header = reinterpret_cast<const Header*>(record);
    std::string error;
    bool valid = header->validate(RelayTest::handler(), static_cast<unsigned>(bytes.size()), 0, error);
    ASSERT_EQ(valid, expected == Verdict::Valid) << "case " << i << ": " << error;
    if (!valid) {
      ASSERT_EQ(error.rfind(prefix(expected), 0), 0U) << "case " << i << ": " << error;
    }
  }
  // Every verdict was exercised.
  for (unsigned count : verdicts) {
    EXPECT_GT(count, 100U);
  }
}

TEST(RelayRandomInput, InitializeAndScanNeverFaultOnTenThousandQueues) {
  RelayTest::TempDir temp;
  std::string dir = temp.table("t");
  Mem::RootPath root(dir);
  std::mt19937 rng(4711);
  unsigned expectedMessages = 0;
  unsigned initialized = 0;
  {
    StderrToFile redirect(temp.path() + "/stderr");
    // Each case costs some thirty system calls (files rewritten, opened,
    // mapped, remapped, unmapped): ten thousand keep the test to seconds.
    for (int i = 0; i < 10000; ++i) {
      std::vector<char> primary = randomFile(rng);
      std::vector<char> secondary = randomFile(rng);
      ASSERT_TRUE(overwrite(dir + "/relay.1", primary));
      ASSERT_TRUE(overwrite(dir + "/relay.2", secondary));
      // Empty or shorter than the header: false without a word. Else both
      // are validated, the primary first.
      bool attachable = primary.size() >= 88 && secondary.size() >= 88;
      Verdict first = model(primary);
      Verdict second = model(secondary);
      bool expected = attachable && first == Verdict::Valid && second == Verdict::Valid;
      if (attachable && !expected) {
        ++expectedMessages;
      }
      Reader reader(RelayTest::handler(), root, false);
      bool ok = reader.initialize();
      ASSERT_EQ(ok, expected) << "case " << i;
      if (ok) {
        ++initialized;
        Header copy = reader.header(Table::PRIMARY);
        ASSERT_EQ(std::memcmp(&copy, primary.data(), 84), 0) << "case " << i;
        std::ostringstream out;
        reader.scan(out, (i & 1) != 0);
        const std::string report = out.str();
        ASSERT_NE(report.find("\nRestarted 0 times\n"), std::string::npos) << "case " << i;
      }
    }
  }
  EXPECT_GT(initialized, 1000U);
  // One validation line per rejected queue, nothing else.
  std::ifstream errors(temp.path() + "/stderr");
  std::string line;
  unsigned lines = 0;
  while (std::getline(errors, line)) {
    ASSERT_NE(line.find(" validation failed: "), std::string::npos) << line;
    ++lines;
  }
  EXPECT_EQ(lines, expectedMessages);
}

// Reading bundles: a well-formed one gives its manifest and its tables; a
// damaged, truncated, hostile or unknown one is refused with one line, and
// never crashes the reader, whatever its bytes.
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Bundle.h"
#include "SampleFixture.h"
#include "support/TempDir.h"

namespace {

using Json = nlohmann::json;

struct Entry {
  std::string name;
  std::string data;
  unsigned type = AE_IFREG;
};

// A tar archive (zstd-compressed on request) of `entries`, in memory.
std::string archiveOf(const std::vector<Entry>& entries, bool zstd) {
  std::vector<char> buffer(1 << 20);
  std::size_t used = 0;
  std::unique_ptr<archive, int (*)(archive*)> writer(archive_write_new(), archive_write_free);
  archive_write_set_format_pax_restricted(writer.get());
  if (zstd) {
    archive_write_add_filter_zstd(writer.get());
  }
  archive_write_open_memory(writer.get(), buffer.data(), buffer.size(), &used);
  for (const Entry& item : entries) {
    std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), item.name.c_str());
    archive_entry_set_filetype(entry.get(), item.type);
    archive_entry_set_perm(entry.get(), 0644);
    if (item.type == AE_IFLNK) {
      archive_entry_set_symlink(entry.get(), item.data.c_str());
    } else {
      archive_entry_set_size(entry.get(), static_cast<la_int64_t>(item.data.size()));
    }
    archive_write_header(writer.get(), entry.get());
    if (item.type == AE_IFREG) {
      archive_write_data(writer.get(), item.data.data(), item.data.size());
    }
  }
  archive_write_close(writer.get());
  return std::string(buffer.data(), used);
}

std::string manifestText(int version) {
  Json manifest;
  manifest["format_version"] = version;
  manifest["root"] = "/dev/shm/heron";
  manifest["sample"] = Json::parse(R"({"time": 5, "root": "/dev/shm/heron", "tables": []})");
  return manifest.dump();
}

std::vector<Entry> goodEntries() {
  return {{"tables/", "", AE_IFDIR},
          {"tables/md/eu/quotes/owner", std::string(128, 'o')},
          {"tables/md/eu/quotes/relay.1", std::string(4096, '\0') + "tail"},
          {"manifest.json", manifestText(1)}};
}

class BundleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    into_ = dir_ + "/into";
    ASSERT_EQ(::mkdir(into_.c_str(), 0700), 0);
  }

  // Writes `bytes` as a bundle and reads it into a fresh directory.
  bool read(const std::string& bytes, Json& manifest, std::string& error) {
    const std::string path = dir_ + "/bundle.tar";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    static int round = 0;
    const std::string into = into_ + "/" + std::to_string(++round);
    ::mkdir(into.c_str(), 0700);
    return Stat::readBundle(path, into, manifest, error);
  }

  HeronTest::TempDir temp_{"heron-bundle-test"};
  const std::string dir_ = temp_.path();
  std::string into_;
};

TEST_F(BundleTest, ReadsManifestAndTablesOfPlainAndCompressedBundles) {
  for (bool zstd : {false, true}) {
    Json manifest;
    std::string error;
    ASSERT_TRUE(read(archiveOf(goodEntries(), zstd), manifest, error)) << error;
    EXPECT_EQ(manifest["format_version"], 1);
    const std::string base = into_ + "/" + (zstd ? "2" : "1") + "/tables/md/eu/quotes/";
    std::ifstream relay(base + "relay.1", std::ios::binary);
    const std::string copied((std::istreambuf_iterator<char>(relay)), std::istreambuf_iterator<char>());
    EXPECT_EQ(copied, std::string(4096, '\0') + "tail");
    struct stat st {};
    ASSERT_EQ(::stat((base + "owner").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 128);
  }
}

TEST_F(BundleTest, RefusesWhatIsNotABundle) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain text, not an archive", "no manifest"},
      {archiveOf({{"tables/orders/owner", "x"}}, false), "no manifest.json"},
      {archiveOf({{"manifest.json", "{not json"}}, false), "not a JSON object"},
      {archiveOf({{"manifest.json", manifestText(99)}}, false), "newer than this heron-stat reads"},
      {archiveOf({{"manifest.json", R"({"format_version": 1})"}}, false), "holds no sample"},
  };
  for (const auto& [bytes, words] : cases) {
    Json manifest;
    std::string error;
    EXPECT_FALSE(read(bytes, manifest, error)) << words;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    if (words != "no manifest") {
      EXPECT_NE(error.find(words), std::string::npos) << error;
    }
  }
}

TEST_F(BundleTest, RefusesEntriesThatWouldLeaveItsDirectory) {
  const std::vector<std::vector<Entry>> hostile = {
      {{"tables/../../escaped", "x"}, {"manifest.json", manifestText(1)}},
      {{"/tmp/escaped", "x"}, {"manifest.json", manifestText(1)}},
      {{"tables/orders/owner", "/etc/passwd", AE_IFLNK}, {"manifest.json", manifestText(1)}},
      {{"elsewhere/owner", "x"}, {"manifest.json", manifestText(1)}},
  };
  for (const std::vector<Entry>& entries : hostile) {
    Json manifest;
    std::string error;
    EXPECT_FALSE(read(archiveOf(entries, false), manifest, error)) << entries.front().name;
    EXPECT_NE(error.find("unexpected entry"), std::string::npos) << error;
  }
  struct stat st {};
  EXPECT_NE(::lstat((dir_ + "/escaped").c_str(), &st), 0);
  EXPECT_NE(::lstat("/tmp/escaped", &st), 0);
}

// Every cut of a bundle and random damage to its bytes: refused or read,
// never a crash, and a refusal is one line.
TEST_F(BundleTest, SurvivesTruncationAndRandomDamage) {
  std::mt19937 random(20261125);
  for (bool zstd : {false, true}) {
    const std::string good = archiveOf(goodEntries(), zstd);
    for (std::size_t cut = 0; cut < good.size(); cut += zstd ? 7 : 509) {
      Json manifest;
      std::string error;
      if (!read(good.substr(0, cut), manifest, error)) {
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
      }
    }
    for (int round = 0; round < 200; ++round) {
      std::string bad = good;
      const int flips = 1 + static_cast<int>(random() % 16);
      for (int i = 0; i < flips; ++i) {
        bad[random() % bad.size()] = static_cast<char>(random());
      }
      Json manifest;
      std::string error;
      if (!read(bad, manifest, error)) {
        EXPECT_FALSE(error.empty());
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
      }
    }
  }
}

TEST(BundleOverlay, TakesLivenessClientsAndRatesFromTheSample) {
  Stat::Sample copied;
  copied.tables.push_back(StatTest::healthyTable("orders"));
  Stat::Table& table = copied.tables.back();
  table.identity.path = "/tmp/private/tables/orders";
  table.writer.alive = Stat::Seen::Unknown;
  table.queues.ratePerSecond.reset();
  table.fileErrors = {"/tmp/private/tables/orders/region.9: file is 0 bytes"};
  const Json live = Json::parse(R"({
    "time": 1700000200.5, "root": "/dev/shm/heron", "interval_seconds": 1, "clients_known": true,
    "tables": [{"name": "orders", "path": "/dev/shm/heron/orders",
      "writer": {"pid": 900, "pid_namespace": 4026531836, "liveness": "heartbeat", "heartbeat_age_seconds": 7.5,
                 "heartbeat_clock": "monotonic", "alive": false, "maps_table": null},
      "clients": {"known": true, "writers": [900], "shadows": [901, 902]},
      "queues": {"rate_per_second": 1234.5, "seconds_to_switch": 3},
      "allocator": {"allocations_per_second": 10, "releases_per_second": null}}]})");
  std::string error;
  ASSERT_TRUE(Stat::overlayLiveSample(live, "/tmp/private/tables", copied, error)) << error;
  EXPECT_EQ(copied.root, "/dev/shm/heron");
  EXPECT_DOUBLE_EQ(copied.timeSeconds, 1700000200.5);
  EXPECT_EQ(table.identity.path, "/dev/shm/heron/orders");
  EXPECT_EQ(table.fileErrors, (std::vector<std::string>{"/dev/shm/heron/orders/region.9: file is 0 bytes"}));
  EXPECT_EQ(table.writer.hostPid, 900U);
  EXPECT_EQ(table.writer.liveness, Stat::Liveness::Heartbeat);
  EXPECT_EQ(table.writer.alive, Stat::Seen::No);
  EXPECT_EQ(table.writer.mapsTable, Stat::Seen::Unknown);
  EXPECT_DOUBLE_EQ(*table.writer.heartbeatAgeSeconds, 7.5);
  EXPECT_EQ(table.clients.shadows, (std::vector<int>{901, 902}));
  EXPECT_DOUBLE_EQ(*table.queues.ratePerSecond, 1234.5);
  EXPECT_DOUBLE_EQ(*table.allocator.allocationsPerSecond, 10);
  EXPECT_FALSE(table.allocator.releasesPerSecond.has_value());

  EXPECT_FALSE(Stat::overlayLiveSample(Json::parse(R"({"tables": 3})"), "/x", copied, error));
  EXPECT_FALSE(Stat::overlayLiveSample(Json::parse("[1, 2]"), "/x", copied, error));
}

}  // namespace

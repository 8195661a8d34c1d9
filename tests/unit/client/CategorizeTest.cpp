// Writer / shadow categorisation of mapping records.
#include <gtest/gtest.h>

#include <ostream>
#include <utility>
#include <vector>

#include "unit/client/FakeProc.h"

namespace {

using Heron::MmapInfo;

class CategorizeTest : public ::testing::Test {
 protected:
  std::ostringstream out;
  Heron::HeronClientScanner scanner{&out, HeronTest::tableRoot("/some/table"), ""};
  Heron::Model::HeronTable table{"t"};
  bool writerFound = false;
  std::unordered_set<int> shadowPids;

  bool categorize(const MmapInfo& info) { return scanner.categorizeClient(info, table, writerFound, shadowPids); }
  // What categorize() traces with `mask`; what it returns in `result`.
  std::string traced(std::uint64_t mask, const MmapInfo& info, bool& result) {
    HeronTest::TraceMask traces(mask);
    testing::internal::CaptureStderr();
    result = categorize(info);
    return testing::internal::GetCapturedStderr();
  }
  const Heron::Model::HeronClientList& writers() const { return table.clients.at(Heron::Writer); }
  const Heron::Model::HeronClientList& shadows() const { return table.clients.at(Heron::Shadow); }
};

TEST_F(CategorizeTest, FirstReadWriteMappingIsTheOnlyWriter) {
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "rw-s", "relay.1")));
  EXPECT_FALSE(categorize(MmapInfo(20, "b", "rw-s", "relay.1")));
  ASSERT_EQ(writers().size(), 1U);
  EXPECT_EQ(writers()[0].pid, 10);
  EXPECT_EQ(writers()[0].procName, "a");
  EXPECT_EQ(writers()[0].command, "");
  EXPECT_TRUE(shadows().empty());
  EXPECT_TRUE(writerFound);
}

TEST_F(CategorizeTest, EmptyPermissionsStopEvenWithGoodFileType) {
  bool stopped = false;
  const std::string traces = traced(0x1, MmapInfo(10, "a", "", "relay.1"), stopped);
  EXPECT_TRUE(stopped);
  EXPECT_NE(traces.find("Failed to tokenize: 10|a||relay.1|"), std::string::npos) << traces;
  EXPECT_TRUE(writers().empty());
  EXPECT_TRUE(shadows().empty());
}

TEST_F(CategorizeTest, EmptyNameOrFileTypeStops) {
  EXPECT_TRUE(categorize(MmapInfo(10, "", "r--s", "relay.1")));
  EXPECT_TRUE(categorize(MmapInfo(10, "a", "r--s", "")));
}

TEST_F(CategorizeTest, ReadOnlyUnknownFileTypeStops) {
  bool stopped = false;
  const std::string traces = traced(0x200, MmapInfo(10, "a", "r--s", "relay.2"), stopped);
  EXPECT_TRUE(stopped);
  EXPECT_NE(traces.find("Unexpected heron file relay.2"), std::string::npos) << traces;
}

TEST_F(CategorizeTest, ReadOnlyEmberMakesOneShadow) {
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "r--s", "ember")));
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "r--s", "ember")));
  ASSERT_EQ(shadows().size(), 1U);
  EXPECT_EQ(shadows()[0].pid, 10);
  EXPECT_EQ(shadowPids.count(10), 1U);
  EXPECT_FALSE(writerFound);
}

// Mappings of one process, each of which categorizeClient() takes without
// stopping, and the clients they make.
struct Mappings {
  const char* name;
  std::vector<std::pair<const char*, const char*>> permsAndFiles;  // of pid 10, "a"
  std::size_t writers;
  std::size_t shadows;
};

std::ostream& operator<<(std::ostream& out, const Mappings& mappings) { return out << mappings.name; }

const Mappings kMappings[] = {
    {"UnknownFileTypeOfKnownShadowIsIgnored", {{"r--s", "ember"}, {"r--s", "relay.2"}}, 0, 1},
    {"BothFilesReadOnlyMakeOneShadow", {{"r--s", "relay.1"}, {"r--s", "ember"}}, 0, 1},
    {"ReadWriteAndReadOnlyOfOneProcessMakeWriterAndShadow", {{"r--s", "ember"}, {"rw-s", "relay.1"}}, 1, 1},
    {"ReadWriteOfAnyFileTypeMakesWriter", {{"rwxp", "relay.2"}}, 1, 0},
};

class CategorizeMappingsTest : public CategorizeTest, public testing::WithParamInterface<Mappings> {};

TEST_P(CategorizeMappingsTest, MakeTheirClients) {
  for (const auto& mapping : GetParam().permsAndFiles) {
    EXPECT_FALSE(categorize(MmapInfo(10, "a", mapping.first, mapping.second))) << mapping.second;
  }
  EXPECT_EQ(writers().size(), GetParam().writers);
  EXPECT_EQ(shadows().size(), GetParam().shadows);
}

INSTANTIATE_TEST_SUITE_P(Categorize, CategorizeMappingsTest, testing::ValuesIn(kMappings),
                         [](const testing::TestParamInfo<Mappings>& info) { return std::string(info.param.name); });

TEST_F(CategorizeTest, WriterPidIsNotAShadowPid) {
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "rw-s", "relay.1")));
  EXPECT_TRUE(shadowPids.empty());
}

TEST_F(CategorizeTest, TracesAtLevelNine) {
  HeronTest::TraceMask mask(0x200);
  testing::internal::CaptureStderr();
  categorize(MmapInfo(10, "a", "rw-s", "relay.1"));
  categorize(MmapInfo(11, "b", "rw-s", "relay.1"));
  categorize(MmapInfo(12, "c", "r--s", "relay.1"));
  categorize(MmapInfo(12, "c", "r--s", "ember"));
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_NE(traces.find("adding writer: a-10"), std::string::npos) << traces;
  EXPECT_NE(traces.find("Trying to add writer, but theres already a writer in clientList"), std::string::npos);
  EXPECT_NE(traces.find("adding a reader of some type: c-12"), std::string::npos);
  EXPECT_NE(traces.find("pid (12) is already categorized as shadow"), std::string::npos);
}

}  // namespace

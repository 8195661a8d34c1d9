// Writer / shadow categorisation of mapping records.
#include <gtest/gtest.h>

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
  HeronTest::TraceMask mask(0x1);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(categorize(MmapInfo(10, "a", "", "relay.1")));
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_NE(traces.find("Failed to tokenize: 10|a||relay.1|"), std::string::npos) << traces;
  EXPECT_TRUE(writers().empty());
  EXPECT_TRUE(shadows().empty());
}

TEST_F(CategorizeTest, EmptyNameOrFileTypeStops) {
  EXPECT_TRUE(categorize(MmapInfo(10, "", "r--s", "relay.1")));
  EXPECT_TRUE(categorize(MmapInfo(10, "a", "r--s", "")));
}

TEST_F(CategorizeTest, ReadOnlyUnknownFileTypeStops) {
  HeronTest::TraceMask mask(0x200);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(categorize(MmapInfo(10, "a", "r--s", "relay.2")));
  std::string traces = testing::internal::GetCapturedStderr();
  EXPECT_NE(traces.find("Unexpected heron file relay.2"), std::string::npos) << traces;
}

TEST_F(CategorizeTest, UnknownFileTypeOfKnownShadowIsIgnored) {
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "r--s", "ember")));
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "r--s", "relay.2")));
  EXPECT_EQ(shadows().size(), 1U);
}

TEST_F(CategorizeTest, ReadOnlyEmberMakesOneShadow) {
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "r--s", "ember")));
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "r--s", "ember")));
  ASSERT_EQ(shadows().size(), 1U);
  EXPECT_EQ(shadows()[0].pid, 10);
  EXPECT_EQ(shadowPids.count(10), 1U);
  EXPECT_FALSE(writerFound);
}

TEST_F(CategorizeTest, BothFilesReadOnlyMakeOneShadow) {
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "r--s", "relay.1")));
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "r--s", "ember")));
  EXPECT_EQ(shadows().size(), 1U);
}

TEST_F(CategorizeTest, ReadWriteAndReadOnlyOfOneProcessMakeWriterAndShadow) {
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "r--s", "ember")));
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "rw-s", "relay.1")));
  EXPECT_EQ(writers().size(), 1U);
  EXPECT_EQ(shadows().size(), 1U);
}

TEST_F(CategorizeTest, ReadWriteOfAnyFileTypeMakesWriter) {
  EXPECT_FALSE(categorize(MmapInfo(10, "a", "rwxp", "relay.2")));
  EXPECT_EQ(writers().size(), 1U);
}

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

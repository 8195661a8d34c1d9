#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Beacon/MappingGuard.h"
#include "Quarry/QuarryReader.h"
#include "Quarry/Region.h"
#include "QuarryFixture.h"
#include "support/Mappings.h"

using Scanner = Quarry::QuarryScannerBase<Quarry::NoMapScanner>;

class QuarryReaderTest : public QuarryTest::TableDir {
 protected:
  std::unique_ptr<Scanner> attached() {
    auto scanner = std::make_unique<Scanner>(handler_, root_, "");
    EXPECT_TRUE(scanner->initialize());
    scanner->attachRegions();
    return scanner;
  }
  // Two regions of 64 x 4 units, and a scanner of them that notes in
  // detached_ each region it lets go.
  std::unique_ptr<Scanner> twoRegionsWatched() {
    region(64, 4);
    region(64, 4);
    auto scanner = attached();
    scanner->setOnRegionDetached([this](std::uint32_t id) { detached_.push_back(id); });
    return scanner;
  }
  // What the scanner traces of the deletion of `name`.
  static std::string deletionTraces(Scanner& scanner, const std::string& name) {
    ::testing::internal::CaptureStderr();
    scanner.notify(name, IN_DELETE);
    return ::testing::internal::GetCapturedStderr();
  }
  std::vector<std::uint32_t> detached_;
};

TEST_F(QuarryReaderTest, InitializeFailsWithoutTheAllocatorFile) {
  ASSERT_EQ(::unlink(root_.fullPath("quarry").c_str()), 0);
  Scanner scanner(handler_, root_, "");
  EXPECT_FALSE(scanner.initialize());
}

TEST_F(QuarryReaderTest, InitializeFailsOnAShortAllocatorFile) {
  ASSERT_EQ(::truncate(root_.fullPath("quarry").c_str(), 63), 0);
  Scanner scanner(handler_, root_, "");
  EXPECT_FALSE(scanner.initialize());
}

TEST_F(QuarryReaderTest, InitializeFailsOnABadMagic) {
  {
    std::fstream out(root_.fullPath("quarry"), std::ios::binary | std::ios::in | std::ios::out);
    out.write("HRNQUARX", 8);
  }
  Scanner scanner(handler_, root_, "");
  EXPECT_FALSE(scanner.initialize());
}

TEST_F(QuarryReaderTest, InitializeWatchesTheTableDirectory) {
  Scanner scanner(handler_, root_, "");
  ASSERT_TRUE(scanner.initialize());
  EXPECT_TRUE(scanner.watching());
}

TEST_F(QuarryReaderTest, AReaderToldNotToWatchAddsNoWatchAndStillSeesEveryRegion) {
  region(64, 4);
  region(128, 4);
  Scanner scanner(handler_, root_, "");
  scanner.watchDeletions(false);
  ASSERT_TRUE(scanner.initialize());
  EXPECT_FALSE(scanner.watching());
  unsigned visited = 0;
  scanner.visitAndReleaseRegions([&visited](const Quarry::RegionScanner&) { ++visited; });
  EXPECT_EQ(visited, 2U);
  EXPECT_EQ(scanner.attachedRegions(), 0U);
}

TEST_F(QuarryReaderTest, AListingGivenIsUsedOnceInsteadOfTheDirectory) {
  const std::uint32_t first = region(64, 4);
  const std::uint32_t second = region(128, 4);
  Scanner scanner(handler_, root_, "");
  ASSERT_TRUE(scanner.initialize());
  // The caller's listing names one of the two regions and files that are
  // not regions.
  const std::vector<std::string> listing{"owner", "quarry", "region." + std::to_string(second), "relay.1"};
  scanner.useListing(&listing);
  std::vector<std::uint32_t> visited;
  auto record = [&visited](const Quarry::RegionScanner& region) { visited.push_back(region.id()); };
  scanner.visitAndReleaseRegions(record);
  EXPECT_EQ(visited, (std::vector<std::uint32_t>{second}));
  visited.clear();
  scanner.visitAndReleaseRegions(record);
  std::sort(visited.begin(), visited.end());
  EXPECT_EQ(visited, (std::vector<std::uint32_t>{first, second}));
}

TEST_F(QuarryReaderTest, AttachRegionsAttachesEveryRegionFile) {
  region(64, 4);
  region(128, 4);
  region(256, 4);
  auto scanner = attached();
  EXPECT_EQ(scanner->attachedRegions(), 3U);
  EXPECT_TRUE(scanner->badRegions().empty());
}

TEST_F(QuarryReaderTest, CreateAndModifyEventsAreOnlyCounted) {
  region(64, 4);
  auto scanner = attached();
  scanner->notify("region.1", IN_CREATE);
  scanner->notify("region.1", IN_MODIFY);
  scanner->notify("region.2", IN_CREATE);
  EXPECT_EQ(scanner->notificationsSeen(), 3U);
  EXPECT_EQ(scanner->attachedRegions(), 1U);
  EXPECT_EQ(scanner->detachedRegions(), 0U);
}

TEST_F(QuarryReaderTest, DeletionOfAKnownRegionDetachesItAndCallsTheCallback) {
  auto scanner = twoRegionsWatched();
  scanner->notify("region.2", IN_DELETE);
  EXPECT_EQ(detached_, std::vector<std::uint32_t>{2});
  EXPECT_EQ(scanner->attachedRegions(), 1U);
  EXPECT_FALSE(scanner->isAttached(2));
  EXPECT_EQ(scanner->detachedRegions(), 1U);
  EXPECT_EQ(scanner->notificationsSeen(), 1U);
}

TEST_F(QuarryReaderTest, DeletionOfANonRegionNameIsIgnored) {
  region(64, 4);
  auto scanner = attached();
  bool called = false;
  scanner->setOnRegionDetached([&called](std::uint32_t) { called = true; });
  scanner->notify("relay.1", IN_DELETE);
  scanner->notify("region.01", IN_DELETE);
  EXPECT_FALSE(called);
  EXPECT_EQ(scanner->notificationsSeen(), 2U);
  EXPECT_EQ(scanner->attachedRegions(), 1U);
}

TEST_F(QuarryReaderTest, DeletionOfAnUnknownRegionIsTracedAsBogus) {
  handler_.setMask(1U << 5);
  auto scanner = attached();
  const std::string traced = deletionTraces(*scanner, "region.77");
  EXPECT_NE(traced.find("saw notify of region.77 flags:512"), std::string::npos) << traced;
  EXPECT_NE(traced.find("saw bogus file: region.77"), std::string::npos) << traced;
  EXPECT_EQ(scanner->detachedRegions(), 0U);
}

TEST_F(QuarryReaderTest, NotifyTracesNothingBelowLevelFive) {
  handler_.setMask(1U << 3);
  auto scanner = attached();
  EXPECT_EQ(deletionTraces(*scanner, "region.77"), "");
}

TEST_F(QuarryReaderTest, DetachedRegionsAreParkedWhenRetirementIsOn) {
  region(64, 4);
  region(64, 4);
  auto scanner = attached();
  scanner->enableRetiredRegions();
  scanner->notify("region.1", IN_DELETE);
  const Quarry::RetiredRegions* retired = scanner->retiredRegions();
  ASSERT_NE(retired, nullptr);
  EXPECT_EQ(retired->parked.size(), 1U);
  EXPECT_EQ(retired->parked[0]->id(), 1U);
  ASSERT_EQ(retired->byId.count(1), 1U);
  EXPECT_EQ(retired->byId.at(1), nullptr);
  EXPECT_NE(retired->byId.at(2), nullptr);
  EXPECT_EQ(scanner->attachedRegions(), 1U);
}

TEST_F(QuarryReaderTest, RealDeletionIsSeenThroughTheWatch) {
  auto scanner = twoRegionsWatched();
  ASSERT_TRUE(writer_->deleteRegion(1));
  scanner->pollEvents();
  EXPECT_EQ(detached_, std::vector<std::uint32_t>{1});
  EXPECT_FALSE(scanner->isAttached(1));
  EXPECT_TRUE(scanner->isAttached(2));
}

TEST_F(QuarryReaderTest, DestructionTracesDetachAtLevelThree) {
  region(64, 4);
  handler_.setMask(1U << 3);
  auto scanner = attached();
  ::testing::internal::CaptureStderr();
  scanner.reset();
  const std::string traced = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(traced.find("detach"), std::string::npos) << traced;
  EXPECT_NE(traced.find("QuarryReader"), std::string::npos) << traced;
}

TEST_F(QuarryReaderTest, EmptyDetachCallbackIsFatal) {
  region(64, 4);
  EXPECT_DEATH(
      {
        auto scanner = attached();
        scanner->setOnRegionDetached(nullptr);
        scanner->notify("region.1", IN_DELETE);
      },
      "bad function call");
}

TEST_F(QuarryReaderTest, ShortRegionFileIsReportedAndSkipped) {
  region(4096, 8);
  region(64, 4);
  ASSERT_EQ(::truncate(root_.fullPath("region.1").c_str(), 4096), 0);
  auto scanner = attached();
  EXPECT_EQ(scanner->attachedRegions(), 1U);
  ASSERT_EQ(scanner->badRegions().size(), 1U);
  EXPECT_EQ(scanner->badRegions()[0].id, 1U);
  EXPECT_NE(scanner->badRegions()[0].reason.find("header claims"), std::string::npos);
}

TEST_F(QuarryReaderTest, RegionWhoseHeaderNamesAnotherIdIsSkipped) {
  region(64, 4);
  ASSERT_EQ(::rename(root_.fullPath("region.1").c_str(), root_.fullPath("region.9").c_str()), 0);
  auto scanner = attached();
  EXPECT_EQ(scanner->attachedRegions(), 0U);
  ASSERT_EQ(scanner->badRegions().size(), 1U);
  EXPECT_EQ(scanner->badRegions()[0].reason, "header names region 1");
}

TEST_F(QuarryReaderTest, ThousandsOfScannersInSequenceDoNotLeakInotifyInstances) {
  for (int i = 0; i < 3000; ++i) {
    Scanner scanner(handler_, root_, "");
    ASSERT_TRUE(scanner.initialize());
    ASSERT_TRUE(scanner.watching()) << "inotify instance " << i;
  }
}

TEST_F(QuarryReaderTest, DetachTraceNamesTheDestructorAndItsSourceFile) {
  handler_.setMask(1U << 3);
  testing::internal::CaptureStderr();
  { Scanner scanner(handler_, root_, ""); }
  const std::string err = testing::internal::GetCapturedStderr();
  handler_.setMask(0);
  EXPECT_NE(err.find(" QuarryTest L3 QuarryReader::~Reader (QuarryReader.cpp:"), std::string::npos) << err;
  EXPECT_NE(err.find("detach from " + root_.path()), std::string::npos) << err;
}

TEST_F(QuarryReaderTest, VisitAndReleaseMapsOneRegionAtATime) {
  std::vector<std::uint32_t> made;
  for (int i = 0; i < 5; ++i) {
    made.push_back(region(64, 4));
  }
  Scanner scanner(handler_, root_, "");
  ASSERT_TRUE(scanner.initialize());
  const std::size_t before = Beacon::MappingGuard::registeredRanges();
  std::size_t most = 0;
  std::vector<std::uint32_t> seen;
  scanner.visitAndReleaseRegions([&](const Quarry::RegionScanner& region) {
    seen.push_back(region.id());
    most = std::max(most, Beacon::MappingGuard::registeredRanges());
  });
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, made);
  EXPECT_EQ(most, before + 1);
  EXPECT_EQ(scanner.attachedRegions(), 0U);
  EXPECT_EQ(Beacon::MappingGuard::registeredRanges(), before);
}

TEST_F(QuarryReaderTest, VisitAndReleaseVisitsAttachedRegionsOnceAndReleasesThem) {
  const std::uint32_t first = region(64, 4);
  const std::uint32_t second = region(128, 4);
  auto scanner = attached();
  ASSERT_EQ(scanner->attachedRegions(), 2U);
  std::vector<std::uint32_t> seen;
  scanner->visitAndReleaseRegions([&](const Quarry::RegionScanner& region) { seen.push_back(region.id()); });
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<std::uint32_t>{first, second}));
  EXPECT_EQ(scanner->attachedRegions(), 0U);
}

TEST_F(QuarryReaderTest, VisitAndReleaseListsAShortRegionFileAsBad) {
  const std::uint32_t good = region(64, 4);
  const std::uint32_t cut = region(64, 4);
  ASSERT_EQ(::truncate(root_.fullPath("region." + std::to_string(cut)).c_str(), 10), 0);
  Scanner scanner(handler_, root_, "");
  ASSERT_TRUE(scanner.initialize());
  std::vector<std::uint32_t> seen;
  scanner.visitAndReleaseRegions([&](const Quarry::RegionScanner& region) { seen.push_back(region.id()); });
  EXPECT_EQ(seen, std::vector<std::uint32_t>{good});
  ASSERT_EQ(scanner.badRegions().size(), 1U);
  EXPECT_EQ(scanner.badRegions()[0].id, cut);
}

// A scanner told to map region headers only keeps each region mapped up to
// its data offset (one page here, of regions of two to nine pages) and
// reads the same figures as one that maps them whole.
TEST_F(QuarryReaderTest, HeaderExtentRegionsAreMappedToTheirDataAndCountedAlike) {
  const std::uint32_t small = region(64, 64);
  const std::uint32_t large = region(4096, 8);
  fill(small, 10);
  fill(large, 3);
  writer_.reset();  // its mappings would be listed too
  Scanner whole(handler_, root_, "");
  Scanner header(handler_, root_, "", Mem::MapExtent::Header);
  ASSERT_TRUE(whole.initialize());
  ASSERT_TRUE(header.initialize());
  whole.attachRegions();
  header.attachRegions();
  ASSERT_EQ(header.attachedRegions(), 2U);
  const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  for (const std::uint32_t id : {small, large}) {
    // The whole scanner's mapping, then the header scanner's.
    const std::vector<std::size_t> lengths = HeronTest::mappingLengths(root_.fullPath("region." + std::to_string(id)));
    ASSERT_EQ(lengths.size(), 2U) << id;
    EXPECT_EQ(std::min(lengths[0], lengths[1]), page) << id;
    EXPECT_GT(std::max(lengths[0], lengths[1]), page) << id;
  }
  const Quarry::AllocatorStats expected = whole.readAttachedStats();
  const Quarry::AllocatorStats got = header.readAttachedStats();
  ASSERT_EQ(got.regions.size(), 2U);
  EXPECT_EQ(got.bytes, expected.bytes);
  EXPECT_EQ(got.usedBytes, expected.usedBytes);
  EXPECT_EQ(got.confirmedUsedBytes, expected.confirmedUsedBytes);
  EXPECT_EQ(got.freePages, expected.freePages);
  EXPECT_EQ(got.allocations, expected.allocations);
  EXPECT_EQ(got.usedBytes, 10U * 64 + 3U * 4096);
}

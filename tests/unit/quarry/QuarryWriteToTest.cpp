// writeTo: the scanner's sections go to the caller's stream, and the output
// named at construction is never opened.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "Quarry/QuarryReader.h"
#include "QuarryFixture.h"

namespace {

using Scanner = Quarry::QuarryScannerBase<Quarry::NoMapScanner>;

class QuarryWriteTo : public QuarryTest::TableDir {};

TEST_F(QuarryWriteTo, SectionsGoToTheStreamAndTheNamedFileIsNotOpened) {
  region(16, 4);
  ::unlink(outputPath().c_str());
  std::ostringstream routed;
  Scanner scanner(handler_, root_, outputPath());
  ASSERT_TRUE(scanner.initialize());
  scanner.writeTo(routed);
  testing::internal::CaptureStdout();
  scanner.printStats(false, false);
  scanner.scanRegions({7}, false);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_NE(::access(outputPath().c_str(), F_OK), 0);
  const std::string text = routed.str();
  EXPECT_EQ(text.rfind("Region allocator statistics\n  regions       1\n", 0), 0U) << text;
  EXPECT_NE(text.find("Region 7: not found\n"), std::string::npos) << text;
  EXPECT_EQ(scanner.outputError(), 0);
}

}  // namespace

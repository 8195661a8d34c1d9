#include <gtest/gtest.h>

#include "Beacon/Platform.h"
#include "Beacon/Trace.h"

namespace {

struct Counted {
  int* formats;
};

}  // namespace

template <>
struct fmt::formatter<Counted> : fmt::formatter<int> {
  template <typename Context>
  auto format(const Counted& c, Context& ctx) const {
    ++*c.formats;
    return fmt::formatter<int>::format(*c.formats, ctx);
  }
};

TEST(TraceMask, SingleMaskAppliesToEveryComponent) {
  EXPECT_EQ(Beacon::Platform::parseTraceMask("0x221", "HeronScanner"), 0x221U);
  EXPECT_EQ(Beacon::Platform::parseTraceMask("0x221", "QuarryReader"), 0x221U);
}

TEST(TraceMask, PerComponentMasks) {
  const char* setting = "HeronScanner=0x221,QuarryReader=0x20";
  EXPECT_EQ(Beacon::Platform::parseTraceMask(setting, "HeronScanner"), 0x221U);
  EXPECT_EQ(Beacon::Platform::parseTraceMask(setting, "QuarryReader"), 0x20U);
  EXPECT_EQ(Beacon::Platform::parseTraceMask(setting, "Other"), 0U);
}

TEST(TraceMask, MalformedIsZero) {
  EXPECT_EQ(Beacon::Platform::parseTraceMask("banana", "HeronScanner"), 0U);
  EXPECT_EQ(Beacon::Platform::parseTraceMask("HeronScanner=zz", "HeronScanner"), 0U);
  EXPECT_EQ(Beacon::Platform::parseTraceMask("", "HeronScanner"), 0U);
}

TEST(Trace, DisabledLevelFormatsNothing) {
  Beacon::Platform::DebugHandler handler("TraceTest", 1U << 3);
  int formats = 0;
  Beacon::fmtrace(handler, 5, "TraceTest", "test", __LINE__, "TraceTest", "{}", Counted{&formats});
  EXPECT_EQ(formats, 0);
  testing::internal::CaptureStderr();
  Beacon::fmtrace(handler, 3, "TraceTest", "test", __LINE__, "TraceTest", "value {}", Counted{&formats});
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(formats, 1);
  EXPECT_NE(err.find("TraceTest::test"), std::string::npos) << err;
  EXPECT_NE(err.find("value 1"), std::string::npos) << err;
}

TEST(Trace, OneHandlerPerComponent) {
  auto a = Beacon::Platform::getDebugHandler("SameName", false);
  auto b = Beacon::Platform::getDebugHandler("SameName", false);
  auto c = Beacon::Platform::getDebugHandler("OtherName", false);
  EXPECT_EQ(a.get(), b.get());
  EXPECT_NE(a.get(), c.get());
}

TEST(TraceDeathTest, FatalAssertionPrintsMessageAndLocation) {
  EXPECT_DEATH(Beacon::fmassert(false, "Src", "fn", 42, "Cls", "broken {}", 7), "FATAL Cls::fn \\(Src:42\\): broken 7");
}

namespace {

void assertingFunction() { Beacon::fmassert(false, __FILE__, __func__, __LINE__, "Cls", "broken"); }
constexpr int kAssertingLine = __LINE__ - 1;

}  // namespace

TEST(TraceDeathTest, FatalAssertionNamesTheCallSitesFileFunctionAndLine) {
  const std::string expected =
      "FATAL Cls::assertingFunction \\(TraceTest\\.cpp:" + std::to_string(kAssertingLine) + "\\): broken";
  EXPECT_DEATH(assertingFunction(), expected);
}

TEST(TraceMask, DecimalAndOctalForms) {
  EXPECT_EQ(Beacon::Platform::parseTraceMask("32", "X"), 32U);
  EXPECT_EQ(Beacon::Platform::parseTraceMask("X=0x20,Y=7", "Y"), 7U);
  EXPECT_EQ(Beacon::Platform::parseTraceMask("-1", "X"), 0U);
}

TEST(TraceMask, EnvironmentSetsTheMaskOfANewHandler) {
  ::setenv("BEACON_TRACE", "EnvTraced=0x220,Other=1", 1);
  auto traced = Beacon::Platform::getDebugHandler("EnvTraced", false);
  auto other = Beacon::Platform::getDebugHandler("EnvUntraced", false);
  ::unsetenv("BEACON_TRACE");
  EXPECT_EQ(traced->mask(), 0x220U);
  EXPECT_TRUE(traced->enabled(5));
  EXPECT_TRUE(traced->enabled(9));
  EXPECT_FALSE(traced->enabled(0));
  EXPECT_EQ(other->mask(), 0U);
}

TEST(Trace, LevelsBeyondTheMaskAreOff) {
  Beacon::Platform::DebugHandler handler("TraceTest", ~0ULL);
  EXPECT_TRUE(handler.enabled(63));
  EXPECT_FALSE(handler.enabled(64));
  EXPECT_FALSE(handler.enabled(1000));
}

TEST(Trace, LineCarriesComponentLevelClassFunctionSourceAndLine) {
  Beacon::Platform::DebugHandler handler("Comp", 1U << 9);
  testing::internal::CaptureStderr();
  Beacon::fmtrace(handler, 9, "File.cpp", "fn", 12, "Cls", "x={}", 5);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find(" Comp L9 Cls::fn (File.cpp:12) x=5\n"), std::string::npos) << err;
  EXPECT_EQ(err.back(), '\n');
  EXPECT_EQ(err.find('\n'), err.size() - 1);
}

TEST(Trace, SourceIsPrintedWithoutItsDirectories) {
  Beacon::Platform::DebugHandler handler("Comp", 1U << 5);
  testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, "Cls", "here");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find(" Comp L5 Cls::TestBody (TraceTest.cpp:" + std::to_string(line) + ") here\n"), std::string::npos)
      << err;
  EXPECT_EQ(err.find('/'), std::string::npos) << err;
}

TEST(Trace, StringFormFormatsEvenWhenTracingIsOff) {
  Beacon::Platform::DebugHandler handler("Off", 0);
  testing::internal::CaptureStderr();
  std::string text = Beacon::fmtracestr(handler, "S", "f", 1, "C", "{}-{}", 1, 2);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(text, "1-2");
}

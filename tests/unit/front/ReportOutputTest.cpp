// The report's one output object: it checks its own writes and leaves the
// process's standard streams as they are.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "ReportOutput.h"
#include "support/TempDir.h"

namespace HeronTest {
namespace {

TEST(ReportOutput, StandardStreamsKeepTheirBuffers) {
  std::streambuf* out = std::cout.rdbuf();
  std::streambuf* err = std::cerr.rdbuf();
  {
    Heron::ReportOutput output;
    EXPECT_EQ(std::cout.rdbuf(), out);
    EXPECT_EQ(std::cerr.rdbuf(), err);
    EXPECT_NE(&output.stream(), &std::cout);
  }
  EXPECT_EQ(std::cout.rdbuf(), out);
}

TEST(ReportOutput, StandardOutputReportGoesThroughWhatStdCoutWritesTo) {
  // A caller that redirected std::cout still gets the report there, in
  // order with what it writes to std::cout itself.
  std::ostringstream captured;
  std::streambuf* saved = std::cout.rdbuf(captured.rdbuf());
  bool finished = false;
  {
    Heron::ReportOutput output;
    output.stream() << "report ";
    std::cout << "warning ";
    output.stream() << "end\n";
    finished = output.finish();
  }
  std::cout.rdbuf(saved);
  EXPECT_TRUE(finished);
  EXPECT_EQ(captured.str(), "report warning end\n");
  EXPECT_TRUE(Heron::ReportOutput().fileName().empty());
}

// A stream buffer that refuses everything, as a full device does.
class RefusingBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type) override { return traits_type::eof(); }
  int sync() override { return -1; }
};

TEST(ReportOutput, FailedWriteToStandardOutputIsReported) {
  RefusingBuffer refusing;
  std::streambuf* saved = std::cout.rdbuf(&refusing);
  bool finished = true;
  testing::internal::CaptureStderr();
  {
    Heron::ReportOutput output;
    output.stream() << "lost\n";
    finished = output.finish();
  }
  const std::string err = testing::internal::GetCapturedStderr();
  std::cout.rdbuf(saved);
  std::cout.clear();
  EXPECT_FALSE(finished);
  EXPECT_EQ(err.rfind("Error writing standard output: ", 0), 0U) << err;
}

TEST(ReportOutput, NamedFileIsWrittenThroughTheStream) {
  TempDir dir("heron-output");
  const std::string file = dir.path() + "/report";
  Heron::ReportOutput output;
  ASSERT_TRUE(output.open(file, {}));
  EXPECT_TRUE(output.isFile());
  EXPECT_EQ(output.fileName(), file);
  output.stream() << "report\n";
  EXPECT_TRUE(output.finish());
  std::ifstream in(file);
  std::string line;
  EXPECT_TRUE(std::getline(in, line));
  EXPECT_EQ(line, "report");
}

}  // namespace
}  // namespace HeronTest

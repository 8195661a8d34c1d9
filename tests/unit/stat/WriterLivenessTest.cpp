#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "Collect.h"
#include "Render.h"
#include "stat/SampleFixture.h"
#include "support/Handler.h"

namespace {

using Stat::Liveness;
using Stat::Seen;

using HeronTest::quietHandler;

constexpr std::uint64_t kBox = 4026532100ULL;

// A fake /proc seen from namespace `own`: a box namespace holding host pid
// 500 (pid 1 inside) and, at host pid 1, init with the same pid number.
class FakeProc {
 public:
  explicit FakeProc(std::uint64_t own) {
    link("self", own);
    add(1, Beacon::Proc::kInitialPidNamespace, "1");
    add(500, kBox, "500\t1");
  }
  void add(int pid, std::uint64_t ns, const std::string& nsPid) {
    link(std::to_string(pid), ns);
    std::ofstream(path_ + "/" + std::to_string(pid) + "/status")
        << "Name:\tw\nState:\tS (sleeping)\nNSpid:\t" << nsPid << "\n";
  }
  ~FakeProc() { std::filesystem::remove_all(path_); }
  FakeProc(const FakeProc&) = delete;
  FakeProc& operator=(const FakeProc&) = delete;
  const std::string& path() const { return path_; }

 private:
  static std::string makeDir() {
    char name[] = "/tmp/heron-fakeproc.XXXXXX";
    return ::mkdtemp(name) != nullptr ? name : "";
  }
  void link(const std::string& pid, std::uint64_t ns) {
    const std::string dir = path_ + "/" + pid;
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((dir + "/ns").c_str(), 0755), 0);
    const std::string text = "pid:[" + std::to_string(ns) + "]";
    ASSERT_EQ(::symlink(text.c_str(), (dir + "/ns/pid").c_str()), 0);
  }
  std::string path_ = makeDir();
};

Stat::Writer boxedWriter(std::uint32_t pid, std::uint64_t ns) {
  Stat::Writer writer;
  writer.known = true;
  writer.pid = pid;
  writer.pidNamespace = ns;
  writer.heartbeatAgeSeconds = 0.1;
  return writer;
}

TEST(StatWriterLiveness, WriterInAVisibleNamespaceIsFoundByItsInnermostPid) {
  FakeProc proc(Beacon::Proc::kInitialPidNamespace);
  Beacon::Proc::PidNamespaceIndex index(quietHandler(), proc.path());
  Stat::Writer writer = boxedWriter(1, kBox);
  const std::vector<int> readWrite = {500};
  Stat::judgeWriter(writer, index, &readWrite, true);
  EXPECT_EQ(writer.liveness, Liveness::Process);
  EXPECT_EQ(writer.alive, Seen::Yes);
  EXPECT_EQ(writer.hostPid, 500U);
  EXPECT_EQ(writer.mapsTable, Seen::Yes);
  const std::vector<int> others = {1};
  Stat::judgeWriter(writer, index, &others, true);
  EXPECT_EQ(writer.mapsTable, Seen::No);
}

TEST(StatWriterLiveness, HostProcessWithTheSamePidNeverKeepsADeadWriterAlive) {
  FakeProc proc(Beacon::Proc::kInitialPidNamespace);
  Beacon::Proc::PidNamespaceIndex index(quietHandler(), proc.path());
  // Its namespace gone: seen from the initial namespace, it is dead.
  Stat::Writer writer = boxedWriter(1, 4026532999ULL);
  Stat::judgeWriter(writer, index, nullptr, true);
  EXPECT_EQ(writer.liveness, Liveness::Process);
  EXPECT_EQ(writer.alive, Seen::No);
  EXPECT_EQ(writer.hostPid, 0U);
  // Its namespace in sight without it.
  writer = boxedWriter(2, kBox);
  Stat::judgeWriter(writer, index, nullptr, true);
  EXPECT_EQ(writer.alive, Seen::No);
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("t")});
  sample.tables[0].writer = writer;
  Stat::assess(sample, {});
  EXPECT_EQ(sample.tables[0].state, Stat::State::Dead);
  EXPECT_EQ(sample.tables[0].problems.at(0).text, "writer 2 (pid namespace 4026532100) is not running");
}

TEST(StatWriterLiveness, NamespaceOutOfSightIsJudgedByTheHeartbeat) {
  FakeProc proc(4026532555ULL);  // we run in a container of our own
  Beacon::Proc::PidNamespaceIndex index(quietHandler(), proc.path());
  Stat::Writer writer = boxedWriter(77, 4026532999ULL);
  Stat::judgeWriter(writer, index, nullptr, true);
  EXPECT_EQ(writer.liveness, Liveness::Heartbeat);
  EXPECT_EQ(writer.alive, Seen::Unknown);
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("t")});
  sample.tables[0].writer = writer;
  Stat::Thresholds thresholds;
  thresholds.staleSeconds = 5;
  Stat::assess(sample, thresholds);
  EXPECT_EQ(sample.tables[0].state, Stat::State::Ok);
  sample.tables[0].writer.heartbeatAgeSeconds = 3600;
  Stat::assess(sample, thresholds);
  EXPECT_EQ(sample.tables[0].state, Stat::State::Stale);

  const nlohmann::json json = nlohmann::json::parse(Stat::renderJson(sample))["tables"][0]["writer"];
  EXPECT_TRUE(json["pid"].is_null());
  EXPECT_EQ(json["namespace_pid"], 77);
  EXPECT_EQ(json["pid_namespace"], 4026532999ULL);
  EXPECT_EQ(json["liveness"], "heartbeat");
  const std::string text = Stat::renderText(sample);
  EXPECT_NE(text.find(" 77* "), std::string::npos) << text;
  EXPECT_NE(text.find("\n* pid in the writer's own PID namespace"), std::string::npos) << text;
}

TEST(StatWriterLiveness, OwnNamespaceShowsTheEmberPidWithoutMark) {
  Stat::Sample sample = StatTest::sampleOf({StatTest::healthyTable("t")});
  sample.tables[0].writer.pidNamespace = 4026531836ULL;
  sample.tables[0].writer.hostPid = 4711;
  const nlohmann::json json = nlohmann::json::parse(Stat::renderJson(sample))["tables"][0]["writer"];
  EXPECT_EQ(json["pid"], 4711);
  EXPECT_EQ(json["liveness"], "process");
  const std::string text = Stat::renderText(sample);
  EXPECT_NE(text.find(" 4711 "), std::string::npos) << text;
  EXPECT_EQ(text.find('*'), std::string::npos) << text;
}

TEST(StatWriterLiveness, OwnNamespaceIsJudgedByPid) {
  FakeProc proc(4026532555ULL);
  Beacon::Proc::PidNamespaceIndex index(quietHandler(), proc.path());
  Stat::Writer writer = boxedWriter(static_cast<std::uint32_t>(::getpid()), 4026532555ULL);
  Stat::judgeWriter(writer, index, nullptr, true);
  EXPECT_EQ(writer.liveness, Liveness::Process);
  EXPECT_EQ(writer.alive, Seen::Yes);
  EXPECT_EQ(writer.hostPid, static_cast<std::uint32_t>(::getpid()));
}

}  // namespace

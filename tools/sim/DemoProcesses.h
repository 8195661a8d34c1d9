// The processes a demo starts: each is heron-sim itself (fork + exec of
// /proc/self/exe), put into one process group of its own and asked to die
// with its parent (PR_SET_PDEATHSIG), so that nothing is left behind even
// when the demo is killed outright.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Sim {

// CLOCK_MONOTONIC in ms: the demo's deadlines.
long long monotonicMs();

struct DemoChild {
  pid_t pid = -1;
  std::string role;   // "writer", "shadow"
  std::string table;  // table name
  int outFd = -1;     // read end of the child's standard output
  std::string firstLine;
  bool running = false;
  int status = 0;  // wait status once reaped
};

class DemoProcesses {
 public:
  DemoProcesses();
  ~DemoProcesses();
  DemoProcesses(const DemoProcesses&) = delete;
  DemoProcesses& operator=(const DemoProcesses&) = delete;

  // Starts `heron-sim args...` with its standard output on a pipe; the index
  // of the new child, or -1 with `error` set.
  int start(const std::string& role, const std::string& table, const std::vector<std::string>& args,
            std::string& error);

  // Waits until each child in `indices` printed its first line, it exits, or
  // `timeoutMs` passes. True when every one printed a line.
  bool waitFirstLines(const std::vector<int>& indices, int timeoutMs);

  // Reads (and drops) whatever the children print, reaps those that ended.
  // Reports each child that ended on its own on standard error, once.
  void service();

  // SIGTERM to every child still running, SIGKILL after `graceMs`, and reaps
  // all of them. Idempotent.
  void stopAll(int graceMs);

  const std::vector<DemoChild>& children() const { return children_; }
  std::vector<int> outputFds() const;
  bool anyRunning() const;

 private:
  void readFrom(DemoChild& child);
  void reap(bool block);

  std::string self_;
  pid_t group_ = 0;
  bool stopping_ = false;
  std::vector<DemoChild> children_;
};

}  // namespace Sim

// Integration helpers for the client reports: a private collection root,
// real heron-sim shadow processes, running heron, and an independent oracle
// for the capacity figures read straight from the table files.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Quarry/AllocatorStats.h"
#include "model/Model.h"
#include "readers/QuarryHelperScanner.h"

namespace ClientTest {

inline std::string binDir() {
  const char* bin = std::getenv("HERON_BIN");
  return bin != nullptr ? bin : "build/bin";
}

inline std::string readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

inline bool exists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs argv with extra environment entries ("NAME=value"; "-NAME" removes),
// stdout and stderr into temp files. `prefix` (e.g. setpriv ...) comes first.
inline RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {}) {
  char outName[] = "/tmp/heron-client-out-XXXXXX";
  char errName[] = "/tmp/heron-client-err-XXXXXX";
  int outFd = ::mkstemp(outName);
  int errFd = ::mkstemp(errName);
  RunResult result;
  pid_t child = ::fork();
  if (child == 0) {
    ::dup2(outFd, 1);
    ::dup2(errFd, 2);
    if (::chdir("/") != 0) {
      ::_exit(126);
    }
    for (const std::string& entry : env) {
      if (!entry.empty() && entry[0] == '-') {
        ::unsetenv(entry.c_str() + 1);
      } else {
        std::size_t eq = entry.find('=');
        ::setenv(entry.substr(0, eq).c_str(), entry.substr(eq + 1).c_str(), 1);
      }
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) {
      args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  ::close(outFd);
  ::close(errFd);
  result.out = readAll(outName);
  result.err = readAll(errName);
  ::unlink(outName);
  ::unlink(errName);
  return result;
}

inline RunResult heron(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
  std::vector<std::string> argv{binDir() + "/heron"};
  argv.insert(argv.end(), args.begin(), args.end());
  return run(argv, env);
}

// A heron-sim shadow process, stopped with SIGTERM and reaped on destruction.
class Shadow {
 public:
  // `names` are table names (or absolute paths); `readWrite` maps as a writer.
  Shadow(const std::vector<std::string>& names, bool readWrite) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) {
      return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(pipeFds[1], 1);
      ::close(pipeFds[0]);
      std::vector<std::string> argv{binDir() + "/heron-sim", "shadow"};
      argv.insert(argv.end(), names.begin(), names.end());
      if (readWrite) {
        argv.push_back("--rw");
      }
      std::vector<char*> args;
      for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
      }
      args.push_back(nullptr);
      ::execv(args[0], args.data());
      ::_exit(127);
    }
    ::close(pipeFds[1]);
    // Wait for one announcement per table.
    std::string text;
    char buffer[256];
    std::size_t lines = 0;
    while (lines < names.size()) {
      ssize_t n = ::read(pipeFds[0], buffer, sizeof buffer);
      if (n <= 0) {
        break;
      }
      text.append(buffer, static_cast<std::size_t>(n));
      lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    }
    ::close(pipeFds[0]);
    attached_ = lines == names.size() && text.rfind("shadow " + std::to_string(pid_) + " attached to ", 0) == 0;
    announcement_ = text;
  }
  ~Shadow() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
  }
  Shadow(const Shadow&) = delete;
  Shadow& operator=(const Shadow&) = delete;

  int pid() const { return pid_; }
  bool attached() const { return attached_; }
  const std::string& announcement() const { return announcement_; }

 private:
  pid_t pid_ = -1;
  bool attached_ = false;
  std::string announcement_;
};

// The "Heron table" blocks of a report, by table name.
inline std::map<std::string, std::string> blocks(const std::string& report) {
  std::map<std::string, std::string> result;
  const std::string head = "Heron table \"";
  std::size_t pos = report.find(head);
  while (pos != std::string::npos) {
    std::size_t next = report.find("\n" + head, pos);
    std::size_t end = next == std::string::npos ? report.size() : next + 1;
    std::size_t nameEnd = report.find('"', pos + head.size());
    result[report.substr(pos + head.size(), nameEnd - pos - head.size())] = report.substr(pos, end - pos);
    pos = next == std::string::npos ? std::string::npos : next + 1;
  }
  return result;
}

// Every pid listed on the Writer and Shadow lines of a block.
inline std::set<int> listedPids(const std::string& block) {
  std::set<int> pids;
  std::istringstream lines(block);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("Writer: ", 0) != 0 && line.rfind("Shadow: ", 0) != 0) {
      continue;
    }
    std::istringstream words(line.substr(8));
    std::string word;
    while (words >> word) {
      // command-pid(procName): the command may itself contain dashes.
      std::size_t paren = word.rfind('(');
      std::size_t dash = word.rfind('-', paren);
      pids.insert(std::atoi(word.substr(dash + 1, paren - dash - 1).c_str()));
    }
  }
  return pids;
}

inline std::uint32_t u32At(const std::string& bytes, std::size_t offset) {
  std::uint32_t value = 0;
  if (offset <= bytes.size() && 4 <= bytes.size() - offset) {
    std::memcpy(&value, bytes.data() + offset, 4);
  }
  return value;
}

// One region file's figures read straight from its bytes: the header's
// counts, the units its bitmap marks used, and the pages of its unit area
// that no used unit touches.
inline Quarry::RegionStats regionFromBytes(const std::string& bytes) {
  Quarry::RegionStats region;
  region.units = u32At(bytes, 12);
  region.usedCount = u32At(bytes, 16);
  region.unitSize = u32At(bytes, 20);
  const std::uint32_t pageSize = u32At(bytes, 28);
  const std::uint64_t area = static_cast<std::uint64_t>(region.units) * region.unitSize;
  const std::uint64_t pages = pageSize == 0 ? 0 : (area + pageSize - 1) / pageSize;
  std::vector<bool> touched(pages, false);
  const std::uint32_t bitmap = u32At(bytes, 40);
  for (std::uint32_t unit = 0; unit < region.units && region.unitSize != 0; ++unit) {
    const std::size_t byte = bitmap + unit / 8;
    const bool inUse = byte < bytes.size() && ((static_cast<unsigned char>(bytes[byte]) >> (unit % 8)) & 1U) != 0;
    if (!inUse) {
      continue;
    }
    ++region.inBitmap;
    const std::uint64_t first = static_cast<std::uint64_t>(unit) * region.unitSize / pageSize;
    const std::uint64_t last = (static_cast<std::uint64_t>(unit) * region.unitSize + region.unitSize - 1) / pageSize;
    for (std::uint64_t page = first; page <= last && page < pages; ++page) {
      touched[page] = true;
    }
  }
  region.freePages = static_cast<std::uint32_t>(std::count(touched.begin(), touched.end(), false));
  return region;
}

// The capacity summary computed from the files of table directory `dir`:
// the queue capacities from both relay headers and the region figures from
// every region file's header and bitmap, printed by the model. "NA" where a
// file is missing.
inline std::string expectedHeader(const std::string& dir) {
  Heron::Model::HeaderInfo info;
  std::string relay1 = readAll(dir + "/relay.1");
  std::string relay2 = readAll(dir + "/relay.2");
  if (relay1.size() >= 88 && relay2.size() >= 88) {
    // notifications: {version u32 at 72, capacity u32 at 76}
    info.primaryNotifications = u32At(relay1, 76);
    info.secondaryNotifications = u32At(relay2, 76);
  }
  if (exists(dir + "/quarry")) {
    Quarry::AllocatorStats stats;
    for (unsigned id = 1; id <= 4095; ++id) {
      std::string bytes = readAll(dir + "/region." + std::to_string(id));
      if (bytes.size() >= 64) {
        stats.add(regionFromBytes(bytes));
      }
    }
    Heron::capacityFromStats(stats, info);
  }
  return info.print();
}

}  // namespace ClientTest

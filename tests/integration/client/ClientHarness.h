// Integration helpers for the client reports: a private collection root,
// real heron-sim shadow processes, running heron, and an independent oracle
// for the capacity figures read straight from the table files.
#pragma once

#include <sys/stat.h>

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
#include "support/Child.h"
#include "support/Run.h"

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

using RunResult = HeronTest::RunResult;

// Runs argv on the collection root this test process names in HERON_ROOT,
// with `env` ("NAME=value") added, from "/" (a directory every user may
// enter).
inline RunResult run(const std::vector<std::string>& argv, std::vector<std::string> env = {}) {
  const char* root = std::getenv("HERON_ROOT");
  env.push_back(std::string("HERON_ROOT=") + (root != nullptr ? root : ""));
  return HeronTest::run(argv, env, "/");
}

inline RunResult heron(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
  std::vector<std::string> argv{binDir() + "/heron"};
  argv.insert(argv.end(), args.begin(), args.end());
  return run(argv, env);
}

// A heron-sim shadow process, killed and reaped on destruction.
class Shadow {
 public:
  // `names` are table names (or absolute paths); `readWrite` maps as a writer.
  Shadow(const std::vector<std::string>& names, bool readWrite) : child_(argv(names, readWrite), rootEnv(), "/") {
    // One announcement per table, within a bounded wait.
    const bool announced = child_.waitForLines(names.size());
    attached_ = child_.started() && announced &&
                child_.out().rfind("shadow " + std::to_string(child_.pid()) + " attached to ", 0) == 0;
  }

  int pid() const { return child_.pid(); }
  bool attached() const { return attached_; }
  const std::string& announcement() const { return child_.out(); }

 private:
  static std::vector<std::string> argv(const std::vector<std::string>& names, bool readWrite) {
    std::vector<std::string> result{binDir() + "/heron-sim", "shadow"};
    result.insert(result.end(), names.begin(), names.end());
    if (readWrite) {
      result.push_back("--rw");
    }
    return result;
  }
  static std::vector<std::string> rootEnv() {
    const char* root = std::getenv("HERON_ROOT");
    return {std::string("HERON_ROOT=") + (root != nullptr ? root : "")};
  }

  HeronTest::Child child_;
  bool attached_ = false;
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

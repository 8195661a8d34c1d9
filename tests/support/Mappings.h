// What the kernel says this process maps of a file: the lengths of its
// mappings of `path` as /proc/self/maps lists them (whole pages, in address
// order). `path` must be canonical, as the kernel prints it.
#pragma once

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace HeronTest {

inline std::vector<std::size_t> mappingLengths(const std::string& path) {
  std::vector<std::size_t> lengths;
  std::ifstream maps("/proc/self/maps");
  std::string line;
  const std::string suffix = " " + path;
  while (std::getline(maps, line)) {
    unsigned long long start = 0;
    unsigned long long end = 0;
    if (line.size() > suffix.size() && line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0 &&
        std::sscanf(line.c_str(), "%llx-%llx", &start, &end) == 2) {
      lengths.push_back(static_cast<std::size_t>(end - start));
    }
  }
  return lengths;
}

}  // namespace HeronTest

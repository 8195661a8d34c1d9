// A quarry writer at full speed in a child process, writing payloads that
// a reader can check: a torn, zeroed or foreign entry fails the check.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "Mem/RootPath.h"
#include "Quarry/Offset.h"
#include "Quarry/QuarryWriter.h"
#include "support/Handler.h"

namespace HeronTest {

inline std::uint32_t check(std::uint32_t sequence) {
  std::uint32_t h = sequence * 2654435761U ^ 0xA5A5A5A5U;
  return h ^ (h >> 15);
}

// 16 printable bytes: the write's sequence number and a check over it, both
// in hex. A torn, zeroed or foreign payload fails the check.
inline std::string payload(std::uint32_t sequence) {
  char text[17];
  std::snprintf(text, sizeof text, "%08x%08x", sequence, check(sequence));
  return std::string(text, 16);
}

inline bool payloadValid(const std::string& text) {
  if (text.size() != 16) {
    return false;
  }
  unsigned sequence = 0;
  unsigned sum = 0;
  if (std::sscanf(text.c_str(), "%8x%8x", &sequence, &sum) != 2) {
    return false;
  }
  return payload(sequence) == text;
}

// Allocates, updates, releases, creates and deletes regions at full speed
// for `duration`; the status of the process it runs in (a HeronTest::Child):
// 0, or 2 when the table cannot be opened.
inline int runLiveWriter(const Mem::RootPath& root, std::chrono::milliseconds duration) {
  Quarry::QuarryWriter writer(quietHandler(), root);
  std::string error;
  if (!writer.open(error)) {
    return 2;
  }
  std::mt19937 random(99);
  std::vector<std::uint32_t> live;
  std::uint32_t sequence = 0;
  const std::uint32_t sizes[] = {16, 32, 64, 256};
  const auto end = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < end) {
    const unsigned op = random() % 100;
    std::vector<std::uint32_t> ids = writer.regionIds();
    if (op < 3 || ids.empty()) {
      if (ids.size() < 24) {
        writer.createRegion(sizes[random() % 4], 8 + random() % 120, error);
      }
    } else if (op < 6) {
      writer.deleteRegion(ids[random() % ids.size()]);
    } else if (op < 60) {
      const std::uint32_t id = ids[random() % ids.size()];
      const std::string text = payload(++sequence);
      const std::uint32_t offset = writer.allocate(id, text.data(), text.size());
      if (offset != Quarry::Offset::TOMBSTONED) {
        live.push_back(offset);
      }
    } else if (op < 75 && !live.empty()) {
      const std::size_t at = random() % live.size();
      const std::string text = payload(++sequence);
      writer.update(live[at], text.data(), text.size());
    } else if (!live.empty()) {
      const std::size_t at = random() % live.size();
      writer.release(live[at]);
      live[at] = live.back();
      live.pop_back();
    }
  }
  return 0;
}

}  // namespace HeronTest

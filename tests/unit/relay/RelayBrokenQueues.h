// Broken queue files, one table for every test that feeds them to the queue
// reader: the reader's own tests (initialize) and the command-line tests
// (heron -s / -q). Each case changes one file of a fresh table whose two
// queues hold 2 slots (112 bytes each: 88-byte header, 12-byte slots), as
// `heron-sim create --capacity 2` and RelayWriter::create(2) make them.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

#include "unit/relay/RelayTestFiles.h"

namespace RelayTest {

struct BrokenQueue {
  enum Change { Poke, Truncate, Remove };

  const char* name;  // test name suffix
  const char* file;  // "relay.1" or "relay.2"
  Change change;
  std::size_t at;       // Poke: byte offset of the u32; Truncate: the new size
  std::uint32_t value;  // Poke: the word written
  // What the reader says about table directory DIR, with "{dir}" standing
  // for DIR; empty when it fails without a word.
  const char* message;

  // Applies the change to the table in `dir`; false when it could not.
  bool apply(const std::string& dir) const {
    const std::string path = dir + "/" + file;
    switch (change) {
      case Poke:
        return pokeWord(path, at, value);
      case Truncate:
        return truncateFile(path, at);
      case Remove:
        return ::unlink(path.c_str()) == 0;
    }
    return false;
  }

  std::string expectedMessage(const std::string& dir) const {
    std::string text = message;
    const std::size_t at = text.find("{dir}");
    return at == std::string::npos ? text : text.replace(at, 5, dir);
  }
};

inline std::ostream& operator<<(std::ostream& out, const BrokenQueue& broken) { return out << broken.name; }

// Header words: magic at 0, version at 8, notifications {version, capacity}
// at 72 and 76.
inline const BrokenQueue kBrokenQueues[] = {
    {"WrongMagic", "relay.2", BrokenQueue::Poke, 0, 0x4e4e5248,
     "Relay {dir} validation failed: bad magic 0x59414c454e4e5248, expected 0x59414c45524e5248 "
     "(\"HRNRELAY\")\n"},
    {"WrongVersion", "relay.1", BrokenQueue::Poke, 8, 3,
     "Relay {dir} validation failed: format version 3, expected 1 (newer by 2)\n"},
    {"CapacityBeyondTheFile", "relay.1", BrokenQueue::Poke, 76, 3,
     "Relay {dir} validation failed: capacity of 3 notifications needs 124 bytes but the file holds 112 (12 bytes "
     "short)\n"},
    {"SecondaryCapacityBeyondTheFile", "relay.2", BrokenQueue::Poke, 76, 1000,
     "Relay {dir} validation failed: capacity of 1000 notifications needs 12088 bytes but the file holds 112 (11976 "
     "bytes short)\n"},
    {"FileCutInsideTheSlots", "relay.1", BrokenQueue::Truncate, 100, 0,
     "Relay {dir} validation failed: capacity of 2 notifications needs 112 bytes but the file holds 100 (12 bytes "
     "short)\n"},
    {"EmptyPrimary", "relay.1", BrokenQueue::Truncate, 0, 0, ""},
    {"EmptySecondary", "relay.2", BrokenQueue::Truncate, 0, 0, ""},
    {"SecondaryCutInsideTheHeader", "relay.2", BrokenQueue::Truncate, 40, 0, ""},
    {"SecondaryOneByteShorterThanTheHeader", "relay.2", BrokenQueue::Truncate, 87, 0, ""},
    {"MissingPrimary", "relay.1", BrokenQueue::Remove, 0, 0, ""},
    {"MissingSecondary", "relay.2", BrokenQueue::Remove, 0, 0, ""},
};

// For INSTANTIATE_TEST_SUITE_P: the case's name.
struct BrokenQueueName {
  std::string operator()(const testing::TestParamInfo<BrokenQueue>& info) const { return info.param.name; }
};

}  // namespace RelayTest

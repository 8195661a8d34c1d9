// Helpers for the queue tests: a temporary table directory, hand-made queue
// files (header and slots laid out byte by byte), and stream capture.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"
#include "Relay/RelayTable.h"
#include "support/TempDir.h"

namespace RelayTest {

using Table = Relay::RelayTable<Relay::RelaySlot>;
using Header = Table::Header;
using Notification = Table::Notification;

inline Beacon::Platform::DebugHandler& handler() {
  static std::shared_ptr<Beacon::Platform::DebugHandler> shared = Beacon::Platform::getDebugHandler("RelayTest", false);
  return *shared;
}

// On tmpfs when there is one, like real tables.
class TempDir : public HeronTest::TempDir {
 public:
  TempDir() : HeronTest::TempDir("heron-relay-test", true) {}
};

// A valid header for `capacity` slots, notifications version 1.
inline Header validHeader(unsigned capacity) {
  Header header{};
  header.magic = Table::kMagic;
  header.version = Table::kVersion;
  header.notifications = Mem::VersionedRef<unsigned>{1, capacity};
  return header;
}

// The bytes of a queue file: the header's first 84 bytes, then the slots
// from byte 84, zero-filled up to `size` bytes (default: the size the
// header's capacity needs).
inline std::vector<char> fileBytes(const Header& header, const std::vector<Notification>& slots,
                                   std::size_t size = static_cast<std::size_t>(-1)) {
  if (size == static_cast<std::size_t>(-1)) {
    size = 88 + 12 * static_cast<std::size_t>(header.notifications.value);
  }
  std::vector<char> bytes(std::max<std::size_t>(size, 84 + 12 * slots.size() + 4), 0);
  std::memcpy(bytes.data(), &header, 88);
  for (std::size_t i = 0; i < slots.size(); ++i) {
    std::memcpy(bytes.data() + 84 + 12 * i, &slots[i], 12);
  }
  bytes.resize(size);
  return bytes;
}

inline bool writeFile(const std::string& path, const std::vector<char>& bytes) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    return false;
  }
  bool ok = bytes.empty() || ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  ::close(fd);
  return ok;
}

// Writes relay.1 and relay.2 of `dir`.
inline bool writeQueue(const std::string& dir, const std::vector<char>& primary, const std::vector<char>& secondary) {
  return writeFile(dir + "/relay.1", primary) && writeFile(dir + "/relay.2", secondary);
}

// Writes one 32-bit word at byte `at` of a file in place.
inline bool pokeWord(const std::string& path, std::size_t at, std::uint32_t value) {
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  bool ok = ::pwrite(fd, &value, 4, static_cast<off_t>(at)) == 4;
  ::close(fd);
  return ok;
}

inline bool truncateFile(const std::string& path, std::size_t size) {
  return ::truncate(path.c_str(), static_cast<off_t>(size)) == 0;
}

inline Notification slot(std::uint32_t sequence, std::uint32_t offset, std::uint32_t size) {
  return Notification{sequence, offset, size};
}

// Splits a scan report into the part before the timing line and the
// timing line itself.
inline std::string beforeTiming(const std::string& report) {
  std::size_t at = report.rfind("Relay scanned in ");
  return at == std::string::npos ? report : report.substr(0, at);
}
inline std::string timing(const std::string& report) {
  std::size_t at = report.rfind("Relay scanned in ");
  return at == std::string::npos ? std::string() : report.substr(at);
}

// One table's header as the statistics block prints it, after a line end:
// the magic of the format, its version, then the fields of the header.
inline std::string individualHeader(SharedMem::EmberId id, const std::string& notifications, unsigned position) {
  const std::string pid = std::to_string(id.pid);
  const std::string instance = std::to_string(id.instanceId);
  return "\n\t\tMagic: 0x59414c45524e5248 (\"HRNRELAY\")\n\t\tVersion: 1\n\t\tEmber: " + pid + "." + instance +
         " (pid: " + pid + " instanceId: " + instance + ")\n\t\tNotifications: " + notifications +
         "\n\t\tCurrent position: " + std::to_string(position) + "\n";
}

// The heading of one table of a queue in a scan report: its name and role,
// its header's fields one to a line, then a blank line.
inline std::string queueHeading(const std::string& table, const std::string& role, const std::string& notifications,
                                unsigned currentPos, unsigned corralStart, unsigned corralEnd, unsigned epoch) {
  return table + " relay queue (" + role + ")\n\tnotifications:" + notifications +
         "\n\tcurrentPos:" + std::to_string(currentPos) + "\n\tcorralStart:" + std::to_string(corralStart) +
         "\n\tcorralEnd:" + std::to_string(corralEnd) + "\n\tepoch:" + std::to_string(epoch) + "\n\n";
}

// The timing line: "Relay scanned in <seconds> seconds", a line break,
// "Restarted <n> times", and the end of line of the report.
// The seconds come from the wall clock, which may step back during a scan.
inline const std::regex& timingZero() {
  static const std::regex pattern("Relay scanned in -?[0-9]+(\\.[0-9]+)?(e[-+][0-9]+)? seconds\nRestarted 0 times\n");
  return pattern;
}

}  // namespace RelayTest

// Asks the kernel about one process's mappings, one at a time, through an
// ioctl on its open /proc/PID/maps (Linux 6.11 and later): no text is made,
// and a mapping's name is made only when asked for. The system headers we
// build with may predate the call, so its structure is declared here, laid
// out as the kernel's interface fixes it.
#pragma once

#include <sys/ioctl.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace Beacon {
namespace Proc {

struct MapQuery {
  std::uint64_t size;        // sizeof(MapQuery)
  std::uint64_t queryFlags;  // kQuery* below
  std::uint64_t queryAddr;   // the address to look at
  std::uint64_t vmaStart;    // found mapping: [start, end)
  std::uint64_t vmaEnd;
  std::uint64_t vmaFlags;  // kVma* below
  std::uint64_t vmaPageSize;
  std::uint64_t vmaOffset;  // in the file
  std::uint64_t inode;
  std::uint32_t devMajor;  // the file's device
  std::uint32_t devMinor;
  std::uint32_t vmaNameSize;  // in: room at vmaNameAddr (0: no name); out: with the '\0'
  std::uint32_t buildIdSize;
  std::uint64_t vmaNameAddr;
  std::uint64_t buildIdAddr;
};
static_assert(sizeof(MapQuery) == 104, "the kernel's layout");
static_assert(offsetof(MapQuery, queryAddr) == 16, "the kernel's layout");
static_assert(offsetof(MapQuery, vmaFlags) == 40, "the kernel's layout");
static_assert(offsetof(MapQuery, inode) == 64, "the kernel's layout");
static_assert(offsetof(MapQuery, devMajor) == 72, "the kernel's layout");
static_assert(offsetof(MapQuery, devMinor) == 76, "the kernel's layout");
static_assert(offsetof(MapQuery, vmaNameSize) == 80, "the kernel's layout");
static_assert(offsetof(MapQuery, vmaNameAddr) == 88, "the kernel's layout");
static_assert(offsetof(MapQuery, buildIdAddr) == 96, "the kernel's layout");

constexpr unsigned long kMapQueryRequest = _IOWR('f', 17, MapQuery);

// The mapping at queryAddr or, failing that, the next one above it.
constexpr std::uint64_t kQueryCoveringOrNext = 0x10;
// File-backed mappings only.
constexpr std::uint64_t kQueryFileBacked = 0x20;

constexpr std::uint64_t kVmaReadable = 0x1;
constexpr std::uint64_t kVmaWritable = 0x2;

// Errors that say the call itself is not there (an older kernel, or a file
// that is not a maps file): the text is the way left.
inline bool mapQueryUnsupported(int error) { return error == ENOTTY || error == EINVAL || error == EOPNOTSUPP; }

}  // namespace Proc
}  // namespace Beacon

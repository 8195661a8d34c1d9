// The queue format: file size, header validation and the slot's text.
#include "Relay/RelayTable.h"

#include <fmt/format.h>

#include <cstdint>
#include <cstring>
#include <limits>

#include "Beacon/Trace.h"
#include "Beacon/Util.h"
#include "Quarry/Offset.h"

namespace Relay {

namespace {

// Bytes that `capacity` slots need, computed without overflow.
constexpr std::uint64_t wideFileSize(unsigned capacity) {
  return RelayTable<RelaySlot>::kHeaderSize + RelayTable<RelaySlot>::kSlotSize * static_cast<std::uint64_t>(capacity);
}

std::size_t putLiteral(char* out, const char* text, std::size_t length) {
  std::memcpy(out, text, length);
  return length;
}

// Pads with blanks from `used` up to `width`; returns the new length.
std::size_t padTo(char* out, std::size_t used, std::size_t width) {
  while (used < width) {
    out[used++] = ' ';
  }
  return used;
}

}  // namespace

template <typename Slot>
RelayTable<Slot>::RelayTable(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, bool)
    : Beacon::Debuggable(handler),
      // Printed in messages: the directory's name, made safe for a terminal.
      name_(Beacon::Util::escapeText(root.path())),
      files_{{handler, root.fullPath("relay.1")}, {handler, root.fullPath("relay.2")}} {}

template <typename Slot>
std::size_t RelayTable<Slot>::Header::fileSize(unsigned notifications) {
  std::uint64_t size = wideFileSize(notifications);
  // Saturates where size_t is 32 bits wide: no file can be that large, so
  // every size check against it fails.
  if (size > std::numeric_limits<std::size_t>::max()) {
    return std::numeric_limits<std::size_t>::max();
  }
  return static_cast<std::size_t>(size);
}

// The second argument is the least capacity the caller accepts (0: any).
template <typename Slot>
bool RelayTable<Slot>::Header::validate(Beacon::Platform::DebugHandler& handler, unsigned fileSize,
                                        unsigned minCapacity, std::string& error) const {
  return validateSize(handler, fileSize, minCapacity, error);
}

template <typename Slot>
bool RelayTable<Slot>::Header::validateSize(Beacon::Platform::DebugHandler& handler, std::uint64_t fileSize,
                                            unsigned minCapacity, std::string& error) const {
  if (fileSize < kHeaderSize) {
    error = fmt::format("file holds {} bytes, less than the {}-byte header ({} bytes short)", fileSize, kHeaderSize,
                        kHeaderSize - fileSize);
    return false;
  }
  // The header is live memory: each word is loaded once.
  const std::uint64_t magicWord = Shared::load64(this, Shared::kMagic);
  if (magicWord != kMagic) {
    // The file's bytes only in hexadecimal: they may be anything (a file
    // that a link pointed at, control characters).
    error =
        fmt::format("bad magic 0x{:x}, expected 0x{:x} (\"{}\")", magicWord, kMagic, Beacon::Util::decodeMagic(kMagic));
    return false;
  }
  const std::uint32_t versionWord = Shared::load32(this, Shared::kVersion);
  if (versionWord != kVersion) {
    error = fmt::format("format version {}, expected {} ({} by {})", versionWord, kVersion,
                        versionWord > kVersion ? "newer" : "older",
                        versionWord > kVersion ? versionWord - kVersion : kVersion - versionWord);
    return false;
  }
  const std::uint64_t notificationsWord = Shared::load64(this, Shared::kNotificationsWord);
  const std::uint32_t capacity = Shared::high(notificationsWord);
  const std::uint64_t need = wideFileSize(capacity);
  if (need > fileSize) {
    error = fmt::format("capacity of {} notifications needs {} bytes but the file holds {} ({} bytes short)", capacity,
                        need, fileSize, need - fileSize);
    return false;
  }
  if (capacity < minCapacity) {
    error = fmt::format("capacity of {} notifications is below the required {} ({} short)", capacity, minCapacity,
                        minCapacity - capacity);
    return false;
  }
  Beacon::fmtrace(handler, 9, __FILE__, __func__, __LINE__, "RelayTable", "header valid: {} notifications in {} bytes",
                  capacity, fileSize);
  return true;
}

template <typename Slot>
std::size_t RelayTable<Slot>::Notification::dumpTo(char* buffer) const {
  static constexpr char kHex[] = "0123456789abcdef";
  std::size_t n = putLiteral(buffer, "seq: ", 5);
  std::size_t start = n;
  n += Beacon::Util::putDecimal(buffer + n, sequence);
  n = padTo(buffer, n, start + 10);
  n += putLiteral(buffer + n, "  offset: 0x", 12);
  for (int shift = 28; shift >= 0; shift -= 4) {
    buffer[n++] = kHex[(offset >> shift) & 0xFU];
  }
  buffer[n++] = ' ';
  start = n;
  if (offset == Quarry::Offset::TOMBSTONED) {
    n += putLiteral(buffer + n, "(tombstoned)", 12);
  } else {
    buffer[n++] = '(';
    n += Beacon::Util::putDecimal(buffer + n, Quarry::Offset::regionId(offset));
    buffer[n++] = ':';
    n += Beacon::Util::putDecimal(buffer + n, Quarry::Offset::unitIndex(offset));
    buffer[n++] = ')';
  }
  n = padTo(buffer, n, start + 14);
  n += putLiteral(buffer + n, "  size: ", 8);
  n += Beacon::Util::putDecimal(buffer + n, size);
  return n;
}

template <typename Slot>
std::string RelayTable<Slot>::Notification::dump() const {
  char buffer[kDumpMax];
  return std::string(buffer, dumpTo(buffer));
}

template class RelayTable<RelaySlot>;

}  // namespace Relay

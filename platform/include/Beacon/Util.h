// Small helpers shared by the runtime and the tools.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "Beacon/Clock.h"
#include "Beacon/Magic.h"
#include "Beacon/Platform.h"

namespace Beacon {

// A mapping could not be made or resized.
class MemoryResourceException : public std::runtime_error {
 public:
  explicit MemoryResourceException(const std::string& what) : std::runtime_error(what) {}
  [[noreturn]] static void throwException(const std::string& what);
};

namespace Util {

// The command line of `pid` with its NUL separators as blanks and no
// trailing blank; "" when it cannot be read (vanished process, kernel
// thread, no rights). `procRoot` lets tests point it at a fake /proc.
std::string readPidCmdline(Platform::DebugHandler& handler, int pid, const std::string& procRoot = "/proc");

// The whole of a small file that is read, not mapped (a /proc file, whose
// size stat() does not tell), opened with O_RDONLY | O_CLOEXEC | `flags`;
// false when it cannot be opened.
bool readWholeFile(const std::string& path, std::string& text, int flags = 0);

// Opens `path` read-only for reading or mapping a table file and returns the
// descriptor (the caller closes it), or -1 with `error` set. O_NONBLOCK keeps
// a FIFO or device left in place of a table file from blocking the open; such
// a file, a symbolic link (never followed: O_NOFOLLOW), or anything else that
// is not a regular file, is refused as "not a regular file". The
// fstat that decided is handed back in `status` when it is given, so callers
// that need the size do not ask again.
int openRegularFile(const std::string& path, std::string& error, struct stat* status = nullptr);

// `text` made safe for a terminal: printable ASCII stays as it is, a
// backslash becomes "\\", newline, tab and carriage return "\n", "\t",
// "\r", and every other byte (control characters, bytes from 0x7f up)
// "\xHH". Used for every text that comes from a file or from another process
// (names, owner fields) before it is printed.
std::string escapeText(const std::string& text);

// The 8 bytes of a magic in memory (file) order as text; bytes that are not
// printable ASCII show as '.'.
std::string decodeMagic(unsigned long long magic);

// Writes `value` in decimal at `out` (room for 10 characters), without a
// terminator; returns the number of characters. For text built a line at a
// time in hot loops, where a formatting library costs more than the copy.
inline std::size_t putDecimal(char* out, std::uint32_t value) {
  char digits[10];
  std::size_t n = 0;
  do {
    digits[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  for (std::size_t i = 0; i < n; ++i) {
    out[i] = digits[n - 1 - i];
  }
  return n;
}

}  // namespace Util
}  // namespace Beacon

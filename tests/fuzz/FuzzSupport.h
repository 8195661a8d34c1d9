// Shared by the fuzz targets: one private table directory per process, the
// fuzz input written into it under the file names the readers expect, and a
// stream that discards the readers' reports.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>

#include "Beacon/Platform.h"
#include "support/TempDir.h"

namespace HeronFuzz {

// The table directory, made on first use (on tmpfs when there is one, like
// real tables) and removed at exit.
inline const HeronTest::TempDir& tableDir() {
  static const HeronTest::TempDir dir("heron-fuzz", true);
  return dir;
}

inline Beacon::Platform::DebugHandler& handler() {
  static const std::shared_ptr<Beacon::Platform::DebugHandler> shared =
      Beacon::Platform::getDebugHandler("HeronFuzz", false);
  return *shared;
}

// Replaces file `name` of the table with `size` bytes; a failure here is the
// harness's, not the reader's, so it aborts the run.
inline void writeTableFile(const std::string& name, const std::uint8_t* data, std::size_t size) {
  const std::string path = tableDir().file(name);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  bool ok = fd >= 0;
  std::size_t done = 0;
  while (ok && done < size) {
    const ssize_t n = ::write(fd, data + done, size - done);
    ok = n > 0;
    done += ok ? static_cast<std::size_t>(n) : 0;
  }
  if (fd >= 0) {
    ::close(fd);
  }
  if (!ok || tableDir().path().empty()) {
    std::abort();
  }
}

inline void removeTableFile(const std::string& name) { ::unlink(tableDir().file(name).c_str()); }

// The first `width` bytes of the input as a little-endian number (fewer when
// the input is shorter), consumed.
inline std::uint32_t takeWord(const std::uint8_t*& data, std::size_t& size, unsigned width) {
  std::uint32_t value = 0;
  for (unsigned i = 0; i < width && size > 0; ++i, ++data, --size) {
    value |= static_cast<std::uint32_t>(*data) << (8 * i);
  }
  return value;
}

// An ostream that drops everything written to it.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

class NullStream : public std::ostream {
 public:
  NullStream() : std::ostream(&buffer_) {}

 private:
  NullBuffer buffer_;
};

}  // namespace HeronFuzz

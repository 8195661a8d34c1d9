// Reads /proc/PID/maps files: in large chunks, into one buffer kept from one
// file to the next, handing out their lines without copying them. Shared by
// every walk over the processes' mappings.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace Beacon {
namespace Proc {

class MapsReader {
 public:
  enum class Result { Read, ReadFailed };

  // Calls onLine(line) in file order for every non-empty line when
  // `everyLine`, else only for the lines that contain "relay.1" or "ember"
  // (every line that can name a heron file does; most processes map none).
  // A last line without a newline counts. onLine returns false to stop.
  // ReadFailed when the first read fails; a later failure keeps what was
  // read, as for a process that exits while its file is read.
  template <typename OnLine>
  Result forEachLine(int fd, bool everyLine, OnLine&& onLine) {
    std::size_t kept = 0;  // an unfinished line, moved to the buffer's start
    bool readAny = false;
    for (;;) {
      if (kept == buffer_.size()) {
        buffer_.resize(buffer_.size() * 2);  // a line longer than the buffer
      }
      const ssize_t n = ::read(fd, buffer_.data() + kept, buffer_.size() - kept);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n < 0) {
        return readAny ? Result::Read : Result::ReadFailed;
      }
      if (n == 0) {
        if (kept != 0) {
          onLine(std::string_view(buffer_.data(), kept));
        }
        return Result::Read;
      }
      readAny = true;
      const char* begin = buffer_.data();
      const std::size_t filled = kept + static_cast<std::size_t>(n);
      const void* lastNewline = ::memrchr(begin + kept, '\n', static_cast<std::size_t>(n));
      if (lastNewline == nullptr) {
        kept = filled;
        continue;
      }
      const char* complete = static_cast<const char*>(lastNewline) + 1;
      const bool goOn = everyLine ? eachLine(begin, complete, onLine) : candidateLines(begin, complete, onLine);
      if (!goOn) {
        return Result::Read;
      }
      kept = filled - static_cast<std::size_t>(complete - begin);
      std::memmove(buffer_.data(), complete, kept);
    }
  }

  // Room for one line, reused from one line to the next.
  std::string& line() { return line_; }

 private:
  static constexpr std::size_t kReadBuffer = std::size_t{64} * 1024;

  // [begin, end) holds whole lines, the last one ending in '\n'.
  template <typename OnLine>
  static bool eachLine(const char* begin, const char* end, OnLine& onLine) {
    while (begin < end) {
      const char* newline = static_cast<const char*>(std::memchr(begin, '\n', static_cast<std::size_t>(end - begin)));
      if (newline != begin && !onLine(std::string_view(begin, static_cast<std::size_t>(newline - begin)))) {
        return false;
      }
      begin = newline + 1;
    }
    return true;
  }

  static const char* find(const char* from, const char* end, std::string_view needle) {
    return static_cast<const char*>(::memmem(from, static_cast<std::size_t>(end - from), needle.data(), needle.size()));
  }

  template <typename OnLine>
  static bool candidateLines(const char* begin, const char* end, OnLine& onLine) {
    constexpr std::string_view relay = "relay.1";
    constexpr std::string_view ember = "ember";
    const char* from = begin;
    const char* nextRelay = find(from, end, relay);
    const char* nextEmber = find(from, end, ember);
    while (nextRelay != nullptr || nextEmber != nullptr) {
      const char* hit = nextRelay == nullptr   ? nextEmber
                        : nextEmber == nullptr ? nextRelay
                                               : std::min(nextRelay, nextEmber);
      const void* before = ::memrchr(from, '\n', static_cast<std::size_t>(hit - from));
      const char* start = before == nullptr ? from : static_cast<const char*>(before) + 1;
      const char* newline = static_cast<const char*>(std::memchr(hit, '\n', static_cast<std::size_t>(end - hit)));
      if (!onLine(std::string_view(start, static_cast<std::size_t>(newline - start)))) {
        return false;
      }
      from = newline + 1;
      if (nextRelay != nullptr && nextRelay < from) {
        nextRelay = find(from, end, relay);
      }
      if (nextEmber != nullptr && nextEmber < from) {
        nextEmber = find(from, end, ember);
      }
    }
    return true;
  }

  std::vector<char> buffer_ = std::vector<char>(kReadBuffer);
  std::string line_;
};

}  // namespace Proc
}  // namespace Beacon

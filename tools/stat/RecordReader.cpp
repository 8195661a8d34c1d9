// Reading recordings back (--from DIR --at TIME). Each sample is one zstd
// frame, so a frame can be decoded on its own: the frames of a file are
// found by walking their headers, and the one nearest a time by a binary
// search, since a file's samples are in time order. Files are picked by the
// start time in their names. A damaged frame ends its file's readable part.
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <utility>

#include "Beacon/UniqueFd.h"
#include "Recorder.h"

namespace Stat {

namespace {

// The first bytes of a file (all of them, or up to a limit), read into a
// buffer that is not zero-filled first: a recording file is megabytes.
class Bytes {
 public:
  // False when the file cannot be read; a short read keeps what came.
  bool read(const std::string& path, std::size_t limit) {
    const Beacon::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0) {
      return false;
    }
    const std::size_t want = std::min(static_cast<std::size_t>(st.st_size), limit);
    data_.reset(new char[want]);
    size_ = 0;
    while (size_ < want) {
      const ssize_t got = ::read(fd.get(), data_.get() + size_, want - size_);
      if (got <= 0) {
        break;
      }
      size_ += static_cast<std::size_t>(got);
    }
    whole_ = size_ == static_cast<std::size_t>(st.st_size);
    return true;
  }
  char operator[](std::size_t i) const { return data_[i]; }
  const char* data() const { return data_.get(); }
  std::size_t size() const { return size_; }
  bool whole() const { return whole_; }

 private:
  std::unique_ptr<char[]> data_;
  std::size_t size_ = 0;
  bool whole_ = false;
};

std::uint64_t little(const Bytes& bytes, std::size_t at, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    value |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
  }
  return value;
}

// The length of the whole zstd frame (or skippable frame) at `at`; 0 when
// the bytes there are not one or it is cut short. Walks the frame header
// and the block headers only.
std::size_t frameLength(const Bytes& bytes, std::size_t at) {
  const std::size_t size = bytes.size();
  if (size - at < 8) {
    return 0;
  }
  const std::uint64_t magic = little(bytes, at, 4);
  if ((magic & 0xFFFFFFF0U) == 0x184D2A50U) {
    const std::uint64_t skip = 8 + little(bytes, at + 4, 4);
    return skip <= size - at ? static_cast<std::size_t>(skip) : 0;
  }
  if (magic != 0xFD2FB528U) {
    return 0;
  }
  const auto descriptor = static_cast<unsigned char>(bytes[at + 4]);
  const bool singleSegment = (descriptor & 0x20) != 0;
  static constexpr std::size_t kDictionaryBytes[] = {0, 1, 2, 4};
  static constexpr std::size_t kContentSizeBytes[] = {0, 2, 4, 8};
  const unsigned sizeFlag = descriptor >> 6;
  std::size_t offset = 5 + (singleSegment ? 0 : 1) + kDictionaryBytes[descriptor & 3] +
                       (sizeFlag == 0 && singleSegment ? 1 : kContentSizeBytes[sizeFlag]);
  for (;;) {
    if (size - at < offset + 3) {
      return 0;
    }
    const std::uint64_t header = little(bytes, at + offset, 3);
    const std::uint64_t type = (header >> 1) & 3;
    const std::uint64_t content = type == 1 ? 1 : header >> 3;
    if (type == 3 || size - at - offset - 3 < content) {
      return 0;
    }
    offset += 3 + static_cast<std::size_t>(content);
    if ((header & 1) != 0) {
      break;
    }
  }
  offset += (descriptor & 4) != 0 ? 4 : 0;
  return offset <= size - at ? offset : 0;
}

// One frame's text; empty when it does not decode.
std::string decodeFrame(const char* frame, std::size_t length) {
  std::string text;
  std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
  archive_read_support_filter_zstd(reader.get());
  archive_read_support_format_raw(reader.get());
  archive_entry* entry = nullptr;
  if (archive_read_open_memory(reader.get(), frame, length) != ARCHIVE_OK ||
      archive_read_next_header(reader.get(), &entry) != ARCHIVE_OK) {
    return text;
  }
  char buffer[1 << 16];
  for (la_ssize_t got = 0; (got = archive_read_data(reader.get(), buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  return text;
}

// The sample's time, read from the head of its line without parsing the
// rest: `{"time":T` or, since documents carry their schema version,
// `{"schema":N,"time":T`.
bool lineTime(const std::string& line, double& seconds) {
  static constexpr char kOpen[] = "{";
  static constexpr char kSchema[] = "\"schema\":";
  static constexpr char kTime[] = "\"time\":";
  if (line.compare(0, sizeof kOpen - 1, kOpen) != 0) {
    return false;
  }
  std::size_t at = sizeof kOpen - 1;
  if (line.compare(at, sizeof kSchema - 1, kSchema) == 0) {
    at = line.find(',', at);
    if (at == std::string::npos) {
      return false;
    }
    ++at;
  }
  if (line.compare(at, sizeof kTime - 1, kTime) != 0) {
    return false;
  }
  const char* start = line.c_str() + at + sizeof kTime - 1;
  char* end = nullptr;
  seconds = std::strtod(start, &end);
  return end != start && std::isfinite(seconds);
}

// One recording file: its bytes and the whole frames in them, up to any
// damage; a frame is decoded only when asked for.
class FrameFile {
 public:
  // `firstOnly`: only the first frame is wanted (read the head of the file
  // while that holds it).
  FrameFile(const std::string& path, bool firstOnly) {
    constexpr std::size_t kHead = 256 << 10;
    if (!bytes_.read(path, firstOnly ? kHead : SIZE_MAX)) {
      return;
    }
    if (firstOnly && frameLength(bytes_, 0) == 0 && !bytes_.whole()) {
      bytes_.read(path, SIZE_MAX);
    }
    for (std::size_t at = 0, length = 0; (length = frameLength(bytes_, at)) != 0; at += length) {
      frames_.emplace_back(at, length);
      if (firstOnly) {
        break;
      }
    }
  }

  std::size_t frames() const { return frames_.size(); }

  // The whole lines of frame `i` (none past the last frame).
  std::vector<std::string> lines(std::size_t i) const {
    std::vector<std::string> out;
    if (i >= frames_.size()) {
      return out;
    }
    const std::string text = decodeFrame(bytes_.data() + frames_[i].first, frames_[i].second);
    for (std::size_t from = 0, end = text.find('\n'); end != std::string::npos;
         from = end + 1, end = text.find('\n', from)) {
      out.push_back(text.substr(from, end - from));
    }
    return out;
  }

  // The time of frame `i`'s first sample; false when it has none.
  bool firstTime(std::size_t i, double& seconds) const {
    const std::vector<std::string> text = lines(i);
    return !text.empty() && lineTime(text.front(), seconds);
  }

 private:
  Bytes bytes_;
  std::vector<std::pair<std::size_t, std::size_t>> frames_;  // offset, length
};

// The sample nearest a time among those offered (the latest when the time
// is negative); the first offered wins a tie.
class Nearest {
 public:
  explicit Nearest(double at) : at_(at) {}

  void offer(std::string& line) {
    double seconds = 0;
    if (!lineTime(line, seconds)) {
      return;
    }
    const double distance = at_ < 0 ? -seconds : std::fabs(seconds - at_);
    if (!found_ || distance < best_) {
      found_ = true;
      best_ = distance;
      line_ = std::move(line);
    }
  }
  void offerFrame(const FrameFile& file, std::size_t i) {
    for (std::string& line : file.lines(i)) {
      offer(line);
    }
  }

  // Frames of `file` around the time: the last one that starts at or
  // before it and the one after. Every frame when one has no readable
  // time (the order cannot be trusted then).
  void searchFile(const FrameFile& file) {
    std::size_t low = 0;
    std::size_t high = file.frames();
    while (low < high) {
      const std::size_t middle = low + (high - low) / 2;
      double seconds = 0;
      if (!file.firstTime(middle, seconds)) {
        for (std::size_t i = 0; i < file.frames(); ++i) {
          offerFrame(file, i);
        }
        return;
      }
      if (seconds <= at_) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    // `low`: the first frame that starts after the time.
    if (low > 0) {
      offerFrame(file, low - 1);
    }
    if (low < file.frames()) {
      offerFrame(file, low);
    }
  }

  // The newest sample of `file`: its last frame that holds one.
  void searchLatest(const FrameFile& file) {
    for (std::size_t i = file.frames(); i > 0 && !found_; --i) {
      offerFrame(file, i - 1);
    }
  }

  bool found() const { return found_; }
  std::string& line() { return line_; }

 private:
  double at_;
  bool found_ = false;
  double best_ = 0;
  std::string line_;
};

// The index of the last file started at or before `at` (the first when
// none is).
std::size_t lastStartedBy(const std::vector<RecordFile>& files, double at) {
  const double atMs = at * 1000;
  std::size_t last = 0;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (static_cast<double>(files[i].startMs) <= atMs) {
      last = i;
    }
  }
  return last;
}

}  // namespace

bool recordedSample(const std::string& dir, double at, std::string& sampleJson, std::string& error) {
  const std::vector<RecordFile> files = recordFiles(dir);
  Nearest nearest(at);
  if (at < 0) {
    for (std::size_t i = files.size(); i > 0 && !nearest.found(); --i) {
      nearest.searchLatest(FrameFile(files[i - 1].path, false));
    }
  } else {
    // The last file started at or before the time, and the first sample
    // of the next one (which may be nearer).
    const std::size_t last = lastStartedBy(files, at);
    if (last < files.size()) {
      nearest.searchFile(FrameFile(files[last].path, false));
    }
    if (last + 1 < files.size()) {
      nearest.offerFrame(FrameFile(files[last + 1].path, true), 0);
    }
    // Nothing readable there (damaged files, or names that do not tell the
    // times): every file is searched.
    if (!nearest.found()) {
      for (const RecordFile& file : files) {
        nearest.searchFile(FrameFile(file.path, false));
      }
    }
  }
  if (!nearest.found()) {
    error = "no recorded sample in " + dir;
    return false;
  }
  sampleJson = std::move(nearest.line());
  return true;
}

bool parseTime(const std::string& text, double& seconds) {
  char* end = nullptr;
  seconds = std::strtod(text.c_str(), &end);
  if (!text.empty() && end == text.c_str() + text.size() && std::isfinite(seconds) && seconds >= 0) {
    return true;
  }
  struct tm utc {};
  const char* rest = ::strptime(text.c_str(), "%Y-%m-%d", &utc);
  if (rest == nullptr || (*rest != ' ' && *rest != 'T')) {
    return false;
  }
  rest = ::strptime(rest + 1, "%H:%M:%S", &utc);
  if (rest == nullptr || !(*rest == '\0' || (rest[0] == 'Z' && rest[1] == '\0'))) {
    return false;
  }
  seconds = static_cast<double>(::timegm(&utc));
  return true;
}

}  // namespace Stat

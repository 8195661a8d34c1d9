// Recording files are written with O_APPEND, one zstd frame per sample;
// a frame that could not be written whole is cut off again, so a file only
// ever ends on a whole frame (but after a crash mid-write, which the reader
// tolerates: it keeps every whole line before the damage).
#include "Recorder.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>

namespace Stat {

namespace {

// A file is closed and the next one started at this share of the budget:
// removing the oldest file then frees at most that much.
constexpr std::uint64_t kFilesPerBudget = 8;

la_ssize_t appendTo(archive*, void* data, const void* buffer, std::size_t length) {
  static_cast<std::string*>(data)->append(static_cast<const char*>(buffer), length);
  return static_cast<la_ssize_t>(length);
}

// `text` as one zstd frame.
bool compressFrame(const std::string& text, std::string& frame) {
  std::unique_ptr<archive, int (*)(archive*)> writer(archive_write_new(), archive_write_free);
  archive_write_set_format_raw(writer.get());
  archive_write_add_filter_zstd(writer.get());
  archive_write_set_bytes_in_last_block(writer.get(), 1);
  if (archive_write_open(writer.get(), &frame, nullptr, appendTo, nullptr) != ARCHIVE_OK) {
    return false;
  }
  std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_pathname(entry.get(), "sample");
  return archive_write_header(writer.get(), entry.get()) == ARCHIVE_OK &&
         archive_write_data(writer.get(), text.data(), text.size()) == static_cast<la_ssize_t>(text.size()) &&
         archive_write_close(writer.get()) == ARCHIVE_OK;
}

std::uint64_t little(const std::string& bytes, std::size_t at, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    value |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
  }
  return value;
}

// The length of the whole zstd frame (or skippable frame) at `at`; 0 when
// the bytes there are not one or it is cut short. Walks the frame header
// and the block headers only.
std::size_t frameLength(const std::string& bytes, std::size_t at) {
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

// The whole lines a recording file holds, frame by frame, up to any damage.
std::vector<std::string> fileLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  for (std::size_t at = 0, length = 0; (length = frameLength(bytes, at)) != 0; at += length) {
    const std::string text = decodeFrame(bytes.data() + at, length);
    for (std::size_t from = 0, end = text.find('\n'); end != std::string::npos;
         from = end + 1, end = text.find('\n', from)) {
      lines.push_back(text.substr(from, end - from));
    }
  }
  return lines;
}

// The "time" of a recorded line, without parsing all of it: the renderer
// writes it first.
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

}  // namespace

Recorder::Recorder(std::string dir, std::uint64_t maxBytes)
    : dir_(std::move(dir)),
      maxBytes_(maxBytes),
      fileBytesLimit_(std::max<std::uint64_t>(maxBytes / kFilesPerBudget, 1)) {}

Recorder::~Recorder() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

bool Recorder::open(std::string& error) {
  if (::mkdir(dir_.c_str(), 0755) != 0 && errno != EEXIST) {
    error = dir_ + ": " + std::strerror(errno);
    return false;
  }
  struct stat st {};
  if (::stat(dir_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    error = dir_ + ": not a directory";
    return false;
  }
  return true;
}

bool Recorder::startFile(double timeSeconds, std::string& error) {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  // Named by the start in milliseconds: names sort as the files were made,
  // and a restart never appends to a file whose end it did not write.
  const auto ms = static_cast<long long>(timeSeconds * 1000);
  for (int extra = 0; extra < 1000 && fd_ < 0; ++extra) {
    current_ = dir_ + "/" + kRecordPrefix + std::to_string(ms + extra) + kRecordSuffix;
    fd_ = ::open(current_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0644);
  }
  if (fd_ < 0) {
    error = current_ + ": " + std::strerror(errno);
    return false;
  }
  currentBytes_ = 0;
  return true;
}

bool Recorder::makeRoom(std::uint64_t incoming) {
  std::vector<RecordFile> files = recordFiles(dir_);
  std::uint64_t total = 0;
  for (const RecordFile& file : files) {
    total += file.bytes;
  }
  for (const RecordFile& file : files) {
    if (total + incoming <= maxBytes_) {
      return true;
    }
    if (file.path != current_ && ::unlink(file.path.c_str()) == 0) {
      total -= file.bytes;
    }
  }
  return total + incoming <= maxBytes_;
}

bool Recorder::append(const std::string& line, double timeSeconds, std::string& error) {
  std::string frame;
  if (!compressFrame(line, frame)) {
    error = "cannot compress the sample";
    return false;
  }
  if ((fd_ < 0 || currentBytes_ + frame.size() > fileBytesLimit_) && !startFile(timeSeconds, error)) {
    return false;
  }
  if (!makeRoom(frame.size())) {
    error = "a sample of " + std::to_string(frame.size()) + " bytes does not fit --record-max-bytes";
    return false;
  }
  for (int attempt = 0; attempt < 2; ++attempt) {
    const ssize_t wrote = ::write(fd_, frame.data(), frame.size());
    if (wrote == static_cast<ssize_t>(frame.size())) {
      currentBytes_ += frame.size();
      return true;
    }
    // A short write is the disk filling up: the next one says ENOSPC.
    const int why = wrote < 0 ? errno : ENOSPC;
    error = current_ + ": " + std::strerror(why);
    // A part of a frame would make the rest of the file unreadable.
    if (::ftruncate(fd_, static_cast<off_t>(currentBytes_)) != 0 || why != ENOSPC) {
      break;
    }
    // A full disk: the oldest recordings make room for the newest.
    const std::vector<RecordFile> files = recordFiles(dir_);
    if (files.empty() || files.front().path == current_ || ::unlink(files.front().path.c_str()) != 0) {
      break;
    }
  }
  return false;
}

std::vector<RecordFile> recordFiles(const std::string& dir) {
  std::vector<RecordFile> files;
  std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(dir.c_str()), ::closedir);
  if (!listing) {
    return files;
  }
  const std::string prefix = kRecordPrefix;
  const std::string suffix = kRecordSuffix;
  while (const dirent* entry = ::readdir(listing.get())) {
    const std::string name = entry->d_name;
    struct stat st {};
    const std::string path = dir + "/" + name;
    if (name.size() > prefix.size() + suffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0 && ::lstat(path.c_str(), &st) == 0 &&
        S_ISREG(st.st_mode)) {
      files.push_back({path, static_cast<std::uint64_t>(st.st_size)});
    }
  }
  // Oldest first: by the number in the name, then by name.
  std::sort(files.begin(), files.end(), [&](const RecordFile& a, const RecordFile& b) {
    const auto number = [&](const std::string& path) {
      return std::strtoll(path.c_str() + dir.size() + 1 + prefix.size(), nullptr, 10);
    };
    return number(a.path) != number(b.path) ? number(a.path) < number(b.path) : a.path < b.path;
  });
  return files;
}

bool recordedSample(const std::string& dir, double at, std::string& sampleJson, std::string& error) {
  bool found = false;
  double best = 0;
  for (const RecordFile& file : recordFiles(dir)) {
    for (std::string& line : fileLines(file.path)) {
      double seconds = 0;
      if (!lineTime(line, seconds)) {
        continue;
      }
      const double distance = at < 0 ? -seconds : std::fabs(seconds - at);
      if (!found || distance < best) {
        found = true;
        best = distance;
        sampleJson = std::move(line);
      }
    }
  }
  if (!found) {
    error = "no recorded sample in " + dir;
  }
  return found;
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

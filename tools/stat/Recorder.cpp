// Recording files are written with O_APPEND, one zstd frame per sample;
// a frame that could not be written whole is cut off again, so a file only
// ever ends on a whole frame (but after a crash mid-write, which the reader,
// RecordReader.cpp, tolerates: it keeps every whole line before the damage).
#include "Recorder.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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

}  // namespace

Recorder::Recorder(std::string dir, std::uint64_t maxBytes)
    : dir_(std::move(dir)),
      maxBytes_(maxBytes),
      fileBytesLimit_(std::max<std::uint64_t>(maxBytes / kFilesPerBudget, 1)) {}

Recorder::~Recorder() = default;

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
  fd_.reset();
  // Named by the start in milliseconds: names sort as the files were made,
  // and a restart never appends to a file whose end it did not write.
  const auto ms = static_cast<long long>(timeSeconds * 1000);
  for (int extra = 0; extra < 1000 && !fd_.valid(); ++extra) {
    current_ = dir_ + "/" + kRecordPrefix + std::to_string(ms + extra) + kRecordSuffix;
    fd_.reset(::open(current_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0644));
  }
  if (!fd_.valid()) {
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
  if ((!fd_.valid() || currentBytes_ + frame.size() > fileBytesLimit_) && !startFile(timeSeconds, error)) {
    return false;
  }
  if (!makeRoom(frame.size())) {
    error = "a sample of " + std::to_string(frame.size()) + " bytes does not fit --record-max-bytes";
    return false;
  }
  for (int attempt = 0; attempt < 2; ++attempt) {
    const ssize_t wrote = ::write(fd_.get(), frame.data(), frame.size());
    if (wrote == static_cast<ssize_t>(frame.size())) {
      currentBytes_ += frame.size();
      return true;
    }
    // A short write is the disk filling up: the next one says ENOSPC.
    const int why = wrote < 0 ? errno : ENOSPC;
    error = current_ + ": " + std::strerror(why);
    // A part of a frame would make the rest of the file unreadable.
    if (::ftruncate(fd_.get(), static_cast<off_t>(currentBytes_)) != 0 || why != ENOSPC) {
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
      files.push_back(
          {path, static_cast<std::uint64_t>(st.st_size), std::strtoll(name.c_str() + prefix.size(), nullptr, 10)});
    }
  }
  // Oldest first: by the number in the name, then by name.
  std::sort(files.begin(), files.end(), [](const RecordFile& a, const RecordFile& b) {
    return a.startMs != b.startMs ? a.startMs < b.startMs : a.path < b.path;
  });
  return files;
}

}  // namespace Stat

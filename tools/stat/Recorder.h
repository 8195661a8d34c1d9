// The flight recorder: heron-stat --record DIR appends one JSON sample per
// interval to zstd-compressed NDJSON files in DIR ("heron-stat.<start>.ndjson.zst",
// one zstd frame per sample, so a file cut by a crash loses its last sample
// only), and removes the oldest files so that DIR's recordings never exceed
// a byte budget. --from DIR --at TIME reads the sample nearest TIME.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Beacon/UniqueFd.h"
#include "Model.h"

namespace Stat {

constexpr std::uint64_t kDefaultRecordBytes = 64ULL << 20;
constexpr const char* kRecordPrefix = "heron-stat.";
constexpr const char* kRecordSuffix = ".ndjson.zst";

class Recorder {
 public:
  // `dir` must exist (or is made) and be a directory; the budget covers the
  // recording files already there, from an earlier run, too.
  Recorder(std::string dir, std::uint64_t maxBytes);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // False with `error` when DIR cannot be used at all.
  bool open(std::string& error);
  // Appends one line (a JSON document with its line end). A full disk is
  // met by removing the oldest files and trying again; false with `error`
  // when the sample could still not be written (the recording goes on).
  bool append(const std::string& line, double timeSeconds, std::string& error);

 private:
  bool startFile(double timeSeconds, std::string& error);
  // Removes the oldest files (never the current one) until `incoming` more
  // bytes fit the budget; false when they cannot.
  bool makeRoom(std::uint64_t incoming);

  std::string dir_;
  std::uint64_t maxBytes_;
  std::uint64_t fileBytesLimit_;
  Beacon::UniqueFd fd_;
  std::string current_;
  std::uint64_t currentBytes_ = 0;
};

// The recording files of `dir`, oldest first, with their sizes.
struct RecordFile {
  std::string path;
  std::uint64_t bytes = 0;
  // The number in its name: the time of its first sample, in milliseconds.
  long long startMs = 0;
};
std::vector<RecordFile> recordFiles(const std::string& dir);

// The recorded sample (a JSON document) whose time is nearest `at` (the
// latest when `at` is negative). False with `error` when DIR holds none.
// Only the files that can hold it are read (by the times in their names),
// and in them only the frames a binary search by time touches.
bool recordedSample(const std::string& dir, double at, std::string& sampleJson, std::string& error);

// TIME as --at takes it: seconds since the epoch, or a UTC date and time
// "YYYY-MM-DD HH:MM:SS" (a T in place of the space and a final Z allowed).
bool parseTime(const std::string& text, double& seconds);

}  // namespace Stat

// Consistent copies of a table's files while its writer runs, read-only:
// the queue pair by the queue reader's rule (the switch word and both
// capacity words unchanged across the copy), the allocator file and a
// region's header and bitmap by their generation (even and unchanged).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Beacon/UniqueFd.h"
#include "Model.h"

namespace Stat {

// Copies of the queue pair tried before it is kept as last copied and
// marked torn (the allocator and regions use the region reader's bound).
constexpr unsigned kQueueCopyAttempts = 64;
// The same for the allocator file's and a region's header and bitmap,
// copied from a mapping: an attempt takes a few microseconds.
constexpr unsigned kHeaderCopyAttempts = 4096;

struct CopiedFile {
  std::string entry;   // its name in the bundle: "tables/NAME/FILE"
  std::string live;    // the table file
  std::string staged;  // its copy in the private directory
  std::uint64_t size = 0;
  // The first stagedBytes come from the copy; with dataFromLive the rest
  // (a region's units) are read from the table file as the bundle is
  // written.
  std::uint64_t stagedBytes = 0;
  bool dataFromLive = false;
  // The region file as opened for its header: its units are read from the
  // same file even if the writer has since replaced the region.
  Beacon::UniqueFd liveFile;
  std::uint64_t generation = 0;  // the region's when its header was copied
  unsigned attempts = 1;
  bool torn = false;
  bool changedAfterward = false;  // the region's generation moved while its units were read
  std::string sha256;             // of the bytes in the bundle, lower-case hex
};

// Copies the files of every table of `sample` into `stagedRoot`/NAME/,
// filling `files` in the order the bundle holds them. False with `error`
// when the private directory cannot be written; a table file that cannot be
// read is left out (the copied sample then says what is missing).
bool stageTables(const Sample& sample, const std::string& stagedRoot, std::vector<CopiedFile>& files,
                 std::string& error);

// Passes `file`'s bytes to `sink` in pieces, computing its sha256; a table
// file cut short is padded with zeros and marks the file torn. False when
// `sink` fails or the copy cannot be read.
bool streamCopy(CopiedFile& file, const std::function<bool(const void*, std::size_t)>& sink);

}  // namespace Stat

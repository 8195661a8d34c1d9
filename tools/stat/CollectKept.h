// Table readers kept from one sample to the next by heron-stat's
// long-running modes (--watch, --record): a table's queue files, allocator
// and region files stay mapped (no further than the headers and the
// regions' bitmaps, all that is read of them) and its owner header stays
// read while each of those files is the one that was read, by (device,
// inode, size, modification time) taken before it was read and compared
// every sample. A file replaced, grown, shrunk, removed or added (a new
// region) makes the table's readers be made again; a table no longer
// sampled is let go. While a watch on the table's directory vouches that
// nothing in it changed (WatchedDirs), the files are not looked at at all.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Mem/TableFinder.h"
#include "Model.h"
#include "Quarry/AllocatorStats.h"
#include "Relay/RelayReaderGeneric.h"
#include "WatchedDirs.h"

namespace Stat {

using QueueReader = Relay::RelayReaderGeneric<Relay::RelaySlot>;

// Both queue headers, each taken once with single loads.
struct QueueHeaders {
  QueueReader::Header primary{};
  QueueReader::Header secondary{};
  static QueueHeaders of(const QueueReader& reader) {
    return {reader.header(QueueReader::PRIMARY), reader.header(QueueReader::SECONDARY)};
  }
};

// What lstat said of a file; equal only when it is the same, unchanged file.
struct FileId {
  unsigned long long device = 0;
  unsigned long long inode = 0;
  long long size = -1;
  long long mtimeNs = 0;
  bool operator==(const FileId& other) const {
    return device == other.device && inode == other.inode && size == other.size && mtimeNs == other.mtimeNs;
  }
};

class KeptReaders {
 public:
  KeptReaders();
  ~KeptReaders();
  KeptReaders(const KeptReaders&) = delete;
  KeptReaders& operator=(const KeptReaders&) = delete;

  // Around each sample: tables not touched between them are let go.
  void beginSample();
  void endSample();

  // The directories as last read, for the sample's walk of the root.
  Mem::TableFinder::DirectorySource& directories() { return dirs_; }

  // Whether a watch vouches that the directory `path` is as this sample's
  // walk listed it: a file the listing lacks is not there.
  bool watched(const std::string& path) const { return dirs_.version(path) != 0; }

  // The device of the directory `path` as last read (WatchedDirs::device).
  bool device(const std::string& path, std::optional<std::uint64_t>& device) const {
    return dirs_.device(path, device);
  }

  // The owner fields of the table at `path` as read before, when its owner
  // file is unchanged; else false, and keepOwner() may keep the new read.
  bool owner(const std::string& path, Identity& identity);
  void keepOwner(const std::string& path, const Identity& identity);

  // The headers of the queue reader kept for the table, when both queue
  // files are unchanged and the headers still fit them; else false, and
  // keepQueues() may keep a new initialized reader, made by newQueues(): it
  // maps the queue headers only, all the figures read of it.
  bool queues(const std::string& path, QueueHeaders& headers);
  static std::unique_ptr<QueueReader> newQueues(const std::string& path);
  void keepQueues(const std::string& path, std::unique_ptr<QueueReader> reader);

  // The allocator's figures from the regions kept attached, when the
  // allocator file and the region files of `listing` are those attached.
  // Otherwise a new reader is made and kept when every region attaches;
  // false when it cannot be (the caller reads the table its own way, and
  // says why).
  bool allocator(const std::string& path, const Mem::TableFinder::Listing& listing, Quarry::AllocatorStats& stats);

  // Drops what is kept for the table (a reader failed on it).
  void forget(const std::string& path);

 private:
  struct Table;
  Table& touch(const std::string& path);

  WatchedDirs dirs_;
  std::unordered_map<std::string, std::unique_ptr<Table>> tables_;
  unsigned long long sample_ = 0;
};

}  // namespace Stat

// Read-only side of the region allocator: a table's `quarry` file and its
// `region.<id>` files.
//
// Lifecycle: construct -> initialize() (maps `quarry`, watches the table
// directory) -> attachRegions() (from printStats, scanRegions or a caller)
// -> regions detached one at a time by notify() on deletion, or all at once
// by destruction; or visitAndReleaseRegions(), which holds each region only
// while it is visited (the capacity summary). Single-threaded; notify() is called from
// WatchDescriptor::poll() on the same thread, which the scanner does before
// it attaches or reads regions.
//
// Everything is opened O_RDONLY and mapped PROT_READ; nothing is ever
// written, locked or created in the table.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Beacon/Debuggable.h"
#include "Beacon/MappingGuard.h"
#include "Mem/Inotify.h"
#include "Mem/MapExtent.h"
#include "Mem/RootPath.h"
#include "Quarry/AllocatorStats.h"
#include "Quarry/QuarryFormat.h"

namespace Quarry {

struct NoMapScanner {};
class RegionScanner;  // one attached region; see Quarry/Region.h

// The allocator file itself (64 bytes, mapped read-only). Region bodies are
// never mapped by it.
class NoMapReader {
 public:
  NoMapReader() = default;
  ~NoMapReader();
  NoMapReader(const NoMapReader&) = delete;
  NoMapReader& operator=(const NoMapReader&) = delete;

  // Opens and validates `path`; false with `error` set when it is missing,
  // short or not an allocator file.
  bool open(const std::string& path, std::string& error);
  bool isOpen() const { return header_ != nullptr; }
  // A consistent copy of the header (bounded retries); false when the writer
  // kept changing it.
  bool copy(QuarryHeader& out) const;

 private:
  const QuarryHeader* header_ = nullptr;
  Beacon::MappingGuard::Range guard_;
};

struct ReaderCounters {
  std::uint64_t attached = 0;
  std::uint64_t detached = 0;  // regions detached by notify()
  std::uint64_t badRegions = 0;
};

// Regions detached by notify() are parked here instead of destroyed when the
// record exists; `byId` names regions a caller tracks (null once detached).
struct RetiredRegions {
  std::map<std::uint32_t, RegionScanner*> byId;
  std::vector<std::unique_ptr<RegionScanner>> parked;
};

// A region file that could not be attached, and why.
struct BadRegion {
  std::uint32_t id;
  std::string reason;
};

template <typename Scanner>
class Reader : public Mem::InotifyMgr::Watcher {
 public:
  // `regions`: how much of each region file is mapped. MapExtent::Header
  // maps header and bitmap only, enough for the figures (readStats,
  // readAttachedStats) and nothing that prints an entry.
  Reader(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, const std::string& name,
         Mem::MapExtent regions = Mem::MapExtent::Whole);
  ~Reader() override;
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  void notify(const std::string& fileName, unsigned flags) override;
  // Delivers pending directory events, then attaches every region file
  // present that is not attached yet. Files that cannot be attached are
  // listed in badRegions().
  void attachRegions();
  // The same for the regions named in `regionIds` only (ids that name no
  // region file are left out); no other region is mapped.
  void attachRegions(const std::unordered_set<unsigned>& regionIds);
  // Delivers pending directory events (deletions detach regions).
  void pollEvents() { watch_.poll(); }
  // Calls `visit` once for every region and leaves none attached: the
  // regions attached already, and every other region file present, each
  // attached just for its visit and released right after it, so that at
  // most one more mapping is held at a time. Pending directory events are
  // delivered first; files that cannot be attached are listed in
  // badRegions(). When the directory cannot be listed (listError()) nothing
  // is visited and the attached regions stay.
  void visitAndReleaseRegions(const std::function<void(const RegionScanner&)>& visit);

  std::uint32_t notificationsSeen() const { return notificationsSeen_; }
  std::size_t attachedRegions() const { return regions_.size(); }
  bool isAttached(std::uint32_t regionId) const { return regions_.count(regionId) != 0; }
  std::uint64_t detachedRegions() const { return *detachedCounter_; }
  const std::vector<BadRegion>& badRegions() const { return badRegions_; }
  // Why the last attachRegions() could not list the table directory
  // ("cannot list <dir>: <error>"), or "" when it could.
  const std::string& listError() const { return listError_; }
  const ReaderCounters& counters() const { return counters_; }
  bool watching() const { return watch_.enabled(); }
  // Whether initialize() watches the table directory (yes unless told
  // otherwise before it). A reader used once and then destroyed does not
  // need the watch: its only poll comes before its first attach, when the
  // directory listing already tells every deletion. Adding and removing a
  // watch costs two system calls and kernel work per table, which a report
  // over thousands of tables pays for nothing.
  void watchDeletions(bool enabled) { watchDeletions_ = enabled; }
  // The next attachRegions() or visitAndReleaseRegions() takes the region
  // files from `entries`, the table directory as the caller has just read
  // it, instead of reading the directory again; once only. The caller keeps
  // `entries` alive until then. Null goes back to reading the directory.
  void useListing(const std::vector<std::string>* entries) { listing_ = entries; }

  void setOnRegionDetached(std::function<void(std::uint32_t)> callback) { onRegionDetached_ = std::move(callback); }
  // From now on regions detached by notify() are parked, not destroyed, and
  // every region attached is listed by id.
  void enableRetiredRegions();
  const RetiredRegions* retiredRegions() const { return retiredRegions_.get(); }

 protected:
  bool attachRegion(std::uint32_t regionId);
  // The region attached and counted, or null when it could not be (then
  // listed in badRegions_ unless its file is gone).
  std::unique_ptr<RegionScanner> openRegion(std::uint32_t regionId);
  // Reads the table directory, calling `found` with each region file's id;
  // false with listError_ set when it cannot be listed.
  bool listRegionIds(const std::function<void(std::uint32_t)>& found);

  std::uint32_t notificationsSeen_ = 0;
  Mem::RootPath root_;
  NoMapReader noMapReader_;
  Mem::RootPath regionRoot_;
  std::unordered_map<std::uint32_t, std::unique_ptr<RegionScanner>> regions_;
  Mem::WatchDescriptor watch_;
  ReaderCounters counters_;
  std::uint64_t* detachedCounter_ = &counters_.detached;
  std::unique_ptr<RetiredRegions> retiredRegions_;
  std::function<void(std::uint32_t)> onRegionDetached_;
  std::vector<BadRegion> badRegions_;
  std::string listError_;
  bool watchDeletions_ = true;
  const std::vector<std::string>* listing_ = nullptr;
  Mem::MapExtent regionExtent_;
};

template <typename Scanner>
class QuarryScannerBase : public Reader<Scanner> {
 public:
  // Output goes to the file `outputFile`, appended to (the caller may have
  // written the first part of the same report into it), or to standard
  // output when it is empty; unless writeTo() names a stream.
  // `regions` as for Reader.
  QuarryScannerBase(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, const std::string& outputFile,
                    Mem::MapExtent regions = Mem::MapExtent::Whole);
  ~QuarryScannerBase() override;

  // printStats and scanRegions write to `out` from now on, and nothing else
  // is opened: a caller that prints the rest of the report through one
  // checked stream hands it over here, so that every write of the report is
  // checked in one place (outputError() then stays 0). `out` must outlive
  // the scanner.
  void writeTo(std::ostream& out) { routed_ = &out; }

  // Maps and validates the `quarry` file and watches the table directory.
  // False when the allocator file is missing or invalid; initializeError()
  // then says why.
  bool initialize();
  const std::string& initializeError() const { return initializeError_; }
  // The allocator's figures: every region read once, each held only while
  // it is read (none stays attached), and the allocator file's counters.
  // When the table directory cannot be listed (listError()) no region is in
  // them.
  AllocatorStats readStats();
  // The same figures from the regions attached now (attachRegions()), which
  // stay attached: for a caller that keeps them between reads.
  AllocatorStats readAttachedStats() const;
  // Totals; with `detail` or `sortByOccupancy` one row per region, sorted by
  // entry size then id, or entry size then occupancy.
  void printStats(bool detail, bool sortByOccupancy);
  // Each region (only those in `regionIds` when not empty) and each used
  // entry; empty entries too with `printEmpty`.
  void scanRegions(const std::unordered_set<unsigned>& regionIds, bool printEmpty);

  // Attempts made to copy a region before it is called inconsistent.
  static constexpr unsigned kCopyAttempts = Quarry::kCopyAttempts;

  // errno of the first failed write to the named output file, 0 when every
  // write succeeded (or the output is standard output, whose stream the
  // caller checks).
  int outputError() const { return outputError_; }

 protected:
  std::string outputFile_;
  std::ostream* routed_ = nullptr;
  int outputError_ = 0;
  std::string initializeError_;
};

}  // namespace Quarry

// Read-only side of the region allocator: a table's `quarry` file and its
// `region.<id>` files.
//
// Lifecycle: construct -> initialize() -> attachRegions() (from printStats,
// scanRegions or a caller) -> regions detached one at a time by notify() on
// deletion, or all at once by destruction. Single-threaded; notify() is
// called from WatchDescriptor::poll() on the same thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Beacon/Debuggable.h"
#include "Mem/Inotify.h"
#include "Mem/RootPath.h"

namespace Quarry {

struct NoMapScanner {};
class RegionScanner;  // one attached region; see Quarry/Region.h

namespace Region {
// The id of a "region.<id>" file name (decimal, 1..4095, no leading zeros);
// 0 when the name is not a region file.
std::uint32_t parseRegionId(Beacon::Platform::DebugHandler& handler, const std::string& fileName);
}  // namespace Region

template <typename Scanner>
class Reader : public Mem::InotifyMgr::Watcher {
 public:
  Reader(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, const std::string& name);
  ~Reader() override;

  void notify(const std::string& fileName, unsigned flags) override;
  // Attaches every region file present that is not attached yet.
  void attachRegions();
  std::uint32_t notificationsSeen() const { return notificationsSeen_; }
  std::size_t attachedRegions() const { return regions_.size(); }
  void setOnRegionDetached(std::function<void(std::uint32_t)> callback) { onRegionDetached_ = std::move(callback); }

 protected:
  std::uint32_t notificationsSeen_ = 0;
  Mem::RootPath root_;
  std::unordered_map<std::uint32_t, std::unique_ptr<RegionScanner>> regions_;
  Mem::WatchDescriptor watch_;
  std::uint64_t detachedRegions_ = 0;
  std::function<void(std::uint32_t)> onRegionDetached_;
};

template <typename Scanner>
class QuarryScannerBase : public Reader<Scanner> {
 public:
  // Output goes to the file `outputFile` (appended to), or to standard
  // output when it is empty.
  QuarryScannerBase(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root,
                    const std::string& outputFile);
  ~QuarryScannerBase() override;

  bool initialize();
  void printStats(bool detail, bool sortByOccupancy);
  void scanRegions(const std::unordered_set<unsigned>& regionIds, bool printEmpty);

 protected:
  std::string outputFile_;
};

}  // namespace Quarry

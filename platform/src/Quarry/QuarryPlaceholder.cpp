// Placeholder until the region library lands: nothing attaches.
#include "Quarry/QuarryReader.h"

namespace Quarry {

class RegionScanner {};

template <typename Scanner>
Reader<Scanner>::Reader(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, const std::string&)
    : Mem::InotifyMgr::Watcher(handler), root_(root) {}

template <typename Scanner>
Reader<Scanner>::~Reader() = default;

template <typename Scanner>
void Reader<Scanner>::notify(const std::string&, unsigned) {}

template <typename Scanner>
QuarryScannerBase<Scanner>::QuarryScannerBase(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root,
                                              const std::string& outputFile)
    : Reader<Scanner>(handler, root, ""), outputFile_(outputFile) {}

template <typename Scanner>
QuarryScannerBase<Scanner>::~QuarryScannerBase() = default;

template <typename Scanner>
bool QuarryScannerBase<Scanner>::initialize() {
  return false;
}

template <typename Scanner>
void QuarryScannerBase<Scanner>::printStats(bool, bool) {}

template <typename Scanner>
void QuarryScannerBase<Scanner>::scanRegions(const std::unordered_set<unsigned>&, bool) {}

template class Reader<NoMapScanner>;
template class QuarryScannerBase<NoMapScanner>;

}  // namespace Quarry

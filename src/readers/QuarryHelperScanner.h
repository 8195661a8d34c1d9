// The utility's region reader: adds the capacity summary of a table.
#pragma once

#include "Quarry/AllocatorStats.h"
#include "Quarry/QuarryReader.h"
#include "model/Model.h"

namespace Heron {

// The capacity line's region figures (numRegions, totalSize, pagesFree,
// occupancyRate) from the allocator's figures.
void capacityFromStats(const Quarry::AllocatorStats& stats, Model::HeaderInfo& info);

class QuarryHelperScanner : public Quarry::QuarryScannerBase<Quarry::NoMapScanner> {
 public:
  using Quarry::QuarryScannerBase<Quarry::NoMapScanner>::QuarryScannerBase;
  ~QuarryHelperScanner() override = default;

  // Counts every region into numRegions, totalSize, pagesFree and
  // occupancyRate, attaching each one only while it is counted; holds no
  // region afterwards. Leaves the figures alone when the table directory
  // cannot be listed.
  void fillHeader(Model::HeaderInfo& info);
};

}  // namespace Heron

// The utility's region reader: adds the capacity summary of a table.
#pragma once

#include "Quarry/QuarryReader.h"
#include "model/Model.h"

namespace Heron {

class QuarryHelperScanner : public Quarry::QuarryScannerBase<Quarry::NoMapScanner> {
 public:
  using Quarry::QuarryScannerBase<Quarry::NoMapScanner>::QuarryScannerBase;
  ~QuarryHelperScanner() override = default;

  // Attaches every region, fills numRegions, totalSize, pagesFree and
  // occupancyRate, and releases every region it counted.
  void fillHeader(Model::HeaderInfo& info);
};

}  // namespace Heron

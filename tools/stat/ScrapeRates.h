// Rates for --listen: each scrape takes one fresh sample, so the rates and
// the time to switch of /metrics come from the sample of an earlier scrape.
#pragma once

#include <mutex>
#include <optional>

#include "Model.h"

namespace Stat {

class ScrapeRates {
 public:
  // Closer scrapes than this give no rate (and keep the earlier sample):
  // a difference over a few milliseconds says nothing about a writer.
  static constexpr double kMinSeconds = 0.5;

  // Gives `sample` rates from the sample kept, if that one is at least
  // kMinSeconds older, and keeps `sample` in its place. Safe to call from
  // several server threads at once.
  void derive(Sample& sample);

 private:
  std::mutex mutex_;
  std::optional<Sample> previous_;
};

}  // namespace Stat

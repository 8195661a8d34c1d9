// The sample behind the live page: GET /api/v1/sample answers the --json
// document of the latest sample. Every open page fetches it each interval;
// a sample younger than half an interval (and than ScrapeRates::kMinSeconds)
// is served again, so that any number of pages costs at most one sample per
// half interval, and every fresh sample has rates from the one before.
#pragma once

#include <functional>
#include <string>

#include "Collect.h"
#include "ScrapeRates.h"

namespace Stat {

class PageSample {
 public:
  using Take = std::function<Sample()>;  // a fresh sample: facts only

  // `interval`: --interval; 0 or less refreshes the page every second.
  PageSample(Take take, const Thresholds& thresholds, double interval);

  // The document of the latest sample, taken now when the one kept was
  // taken `reuseSeconds()` or longer before `now` (CLOCK_MONOTONIC seconds).
  // One caller at a time (the server's sampler thread).
  const std::string& document(double now);

  // Seconds between two fetches of the page.
  double refreshSeconds() const { return refresh_; }
  double reuseSeconds() const;

 private:
  Take take_;
  Thresholds thresholds_;
  double refresh_;
  ScrapeRates rates_;
  std::string document_;
  double takenAt_ = 0;  // the `now` at which the sample kept was taken
};

}  // namespace Stat

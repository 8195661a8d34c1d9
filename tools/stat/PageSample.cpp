#include "PageSample.h"

#include <algorithm>
#include <utility>

#include "Render.h"

namespace Stat {

PageSample::PageSample(Take take, const Thresholds& thresholds, double interval)
    : take_(std::move(take)), thresholds_(thresholds), refresh_(interval > 0 ? interval : 1) {}

double PageSample::reuseSeconds() const { return std::max(refresh_ / 2, ScrapeRates::kMinSeconds); }

const std::string& PageSample::document(double now) {
  if (!document_.empty() && now - takenAt_ < reuseSeconds()) {
    return document_;
  }
  Sample sample = take_();
  rates_.derive(sample);
  assess(sample, thresholds_);
  document_ = renderJson(sample);
  takenAt_ = now;
  return document_;
}

}  // namespace Stat

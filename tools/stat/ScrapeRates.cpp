#include "ScrapeRates.h"

#include "Collect.h"

namespace Stat {

void ScrapeRates::derive(Sample& sample) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (previous_ && sample.monotonicSeconds - previous_->monotonicSeconds < kMinSeconds) {
    return;
  }
  if (previous_) {
    deriveRates(*previous_, sample);
  }
  previous_ = sample;
}

}  // namespace Stat

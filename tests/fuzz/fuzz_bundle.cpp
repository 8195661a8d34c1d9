// A bundle as `heron-stat --from BUNDLE` reads it: the input is the archive
// (a tar, or a zstd-compressed tar: the reader tells them apart by their
// bytes), read through fromBundle and rendered in every output format.
#include <cstddef>
#include <cstdint>

#include "Bundle.h"
#include "FuzzSupport.h"
#include "Render.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  HeronFuzz::writeTableFile("bundle", data, size);
  const Stat::CollectOptions options;
  const Stat::Thresholds thresholds;
  Stat::Sample sample;
  std::string error;
  HeronFuzz::NullStream out;
  if (!Stat::fromBundle(HeronFuzz::tableDir().file("bundle"), options, thresholds, sample, error)) {
    out << error;
    return 0;
  }
  out << Stat::renderText(sample) << Stat::renderJson(sample) << Stat::renderPrometheus(sample)
      << Stat::renderCheck(sample, thresholds).text;
  return 0;
}

// A recording as `heron-stat --from DIR` reads it: the input is one
// recording file (zstd frames of NDJSON samples) in a directory of its own;
// the latest sample found is turned back into a Sample and rendered. An
// input that starts with '{' is also read as one recorded line directly, so
// that the JSON reader is reached without the compression in the way.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Bundle.h"
#include "FuzzSupport.h"
#include "Recorder.h"
#include "Render.h"

namespace {

void render(const std::string& line) {
  const Stat::Thresholds thresholds;
  Stat::Sample sample;
  std::string error;
  HeronFuzz::NullStream out;
  if (!Stat::sampleFromJson(line, thresholds, sample, error)) {
    out << error;
    return;
  }
  out << Stat::renderText(sample) << Stat::renderJson(sample) << Stat::renderPrometheus(sample)
      << Stat::renderCheck(sample, thresholds).text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 0 && data[0] == '{') {
    render(std::string(reinterpret_cast<const char*>(data), size));
  }
  const std::string name = std::string(Stat::kRecordPrefix) + "1764000000000" + Stat::kRecordSuffix;
  HeronFuzz::writeTableFile(name, data, size);
  std::string line;
  std::string error;
  // Both ways of picking: the latest sample, and the one nearest a time.
  for (const double at : {-1.0, 1764000000.5}) {
    if (Stat::recordedSample(HeronFuzz::tableDir().path(), at, line, error)) {
      render(line);
    }
  }
  return 0;
}

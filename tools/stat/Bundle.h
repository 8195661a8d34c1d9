// Bundles: a tar archive (zstd-compressed when its name ends in .zst) that
// holds manifest.json and tables/, a collection root with copies of the
// captured tables' files. Capture.h writes them; this unit reads them back
// into a Sample, as if the collection were live at capture time.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "Collect.h"
#include "Model.h"

namespace Stat {

// Bumped when a reader of an older heron-stat could not read a bundle; a
// reader accepts every version up to its own.
constexpr int kBundleFormatVersion = 1;
constexpr const char* kManifestName = "manifest.json";
constexpr const char* kTablesDir = "tables";

// A private directory (mode 700) under $TMPDIR (else /tmp), removed with
// everything in it when the object goes.
class ScratchDir {
 public:
  ScratchDir() = default;
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  // False with `error` set when it cannot be made, or would lie inside
  // `root` (heron-stat never writes there).
  bool create(const std::string& root, std::string& error);
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Points the collectors at `root` while it lives (HERON_ROOT, with the
// chroot-relative form off), then restores the environment.
class RootOverride {
 public:
  explicit RootOverride(const std::string& root);
  ~RootOverride();
  RootOverride(const RootOverride&) = delete;
  RootOverride& operator=(const RootOverride&) = delete;

 private:
  bool hadRoot_ = false;
  bool hadChroot_ = false;
  std::string root_;
  std::string chroot_;
};

// Overlays on `copied` (collected from copies of the table files) what only
// the live sample `live` (a heron-stat JSON document) knew: the root and the
// times, the tables' paths, writers' liveness and heartbeat ages, clients
// and rates. Tables are matched by name. False with `error` set when `live`
// is not such a document. The readers' words about files under
// `copiedRoot` (where the copies are) name the live root instead.
bool overlayLiveSample(const nlohmann::json& live, const std::string& copiedRoot, Sample& copied, std::string& error);

// A whole Sample from a heron-stat JSON document (a recorded one), ready
// for assess(): a broken table's reasons become its file errors again.
// False with `error` when it is not such a document.
bool sampleFromJson(const std::string& text, const Thresholds& thresholds, Sample& sample, std::string& error);

// Reads the bundle at `path` (the archive itself): extracts its tables/
// into `into` and returns the manifest, checked for a format version this
// reader knows. False with `error` (one line) for a damaged, truncated or
// unknown bundle.
bool readBundle(const std::string& path, const std::string& into, nlohmann::json& manifest, std::string& error);

// The sample a bundle holds, assessed by `thresholds`: queues and
// allocators from its copied files, the rest from its manifest. `options`
// selects tables as for a live sample (EXPR, --exclude).
bool fromBundle(const std::string& path, const CollectOptions& options, const Thresholds& thresholds, Sample& sample,
                std::string& error);

}  // namespace Stat

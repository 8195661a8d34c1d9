// Capturing: each table's files are first copied into a private directory
// (the queue files whole, a region's header and bitmap only, the file
// sparse beyond), consistently by the writer's own protocols; the copies are
// collected like a live root, so that the manifest's sample says what the
// copied files say. The archive is then streamed, a region's units straight
// from the table file, with each file's sha256 taken on the way.
#include "Capture.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "Beacon/Clock.h"
#include "Bundle.h"
#include "CopyFile.h"
#include "Health.h"
#include "Mem/RootPath.h"
#include "Output.h"
#include "Render.h"

namespace Stat {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kRecordBytes = 128 << 10;

void sleepUntil(double monotonic) {
  for (;;) {
    const double left = monotonic - Beacon::monoSeconds();
    if (left <= 0) {
      return;
    }
    struct timespec wait {};
    wait.tv_sec = static_cast<time_t>(left);
    wait.tv_nsec = static_cast<long>((left - std::floor(left)) * 1e9);
    ::nanosleep(&wait, nullptr);
  }
}

// One sample of the tables every EXPR selects (each table once); an EXPR
// that matches nothing is said as for one.
Sample collectAll(const Options& options) {
  if (options.exprs.size() <= 1) {
    return collect(options.collect);
  }
  Sample all;
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < options.exprs.size(); ++i) {
    CollectOptions one = options.collect;
    one.expr = options.exprs[i];
    Sample part = collect(one);
    std::vector<Table> tables = std::move(part.tables);
    std::vector<Problem> problems = std::move(part.problems);
    if (i == 0) {
      all = std::move(part);
      all.tables.clear();
      all.problems.clear();
      all.expr = fmt::format("{}", fmt::join(options.exprs, " "));
    }
    for (Table& table : tables) {
      if (std::find(paths.begin(), paths.end(), table.identity.path) == paths.end()) {
        paths.push_back(table.identity.path);
        all.tables.push_back(std::move(table));
      }
    }
    all.problems.insert(all.problems.end(), problems.begin(), problems.end());
  }
  std::sort(all.tables.begin(), all.tables.end(),
            [](const Table& a, const Table& b) { return a.identity.name < b.identity.name; });
  return all;
}

// The live sample: with an interval, rates from a second one.
Sample liveSample(const Options& options) {
  Sample sample = collectAll(options);
  if (options.interval > 0 && sampleTrouble(sample).empty()) {
    sleepUntil(sample.monotonicSeconds + options.interval);
    Sample later = collectAll(options);
    deriveRates(sample, later);
    sample = std::move(later);
  }
  assess(sample, options.thresholds);
  return sample;
}

Json processJson(const MappingProcess& process) {
  Json out = Json::object();
  out["pid"] = process.pid;
  out["namespace_pid"] = process.namespacePid != 0 ? Json(process.namespacePid) : Json(nullptr);
  out["command"] = validUtf8(process.command);
  out["executable"] = validUtf8(process.executable);
  out["started"] = process.startedSeconds;
  Json& maps = out["maps"] = Json::array();
  for (const std::string& line : process.maps) {
    maps.push_back(validUtf8(line));
  }
  return out;
}

Json fileJson(const CopiedFile& file) {
  Json out = Json::object();
  out["path"] = file.entry;
  out["size"] = file.size;
  out["sha256"] = file.sha256;
  out["attempts"] = file.attempts;
  out["torn"] = file.torn;
  if (file.dataFromLive) {
    // Units are copied after the header and bitmap: a writer that changed
    // some meanwhile leaves their payload newer than the bitmap says.
    out["units_changed_during_copy"] = file.changedAfterward;
  }
  return out;
}

std::string kernelText() {
  struct utsname name {};
  if (::uname(&name) != 0) {
    return std::string();
  }
  return std::string(name.sysname) + " " + name.release + " " + name.version + " " + name.machine;
}

std::string hostText() {
  char host[256] = {};
  return ::gethostname(host, sizeof host - 1) == 0 ? std::string(host) : std::string();
}

// The facts of the bundle but the files' sums, which come as they are
// written.
Json manifestHead(const Sample& sample, double startWall, double startMono) {
  Json out = Json::object();
  out["format"] = "heron-stat bundle";
  out["format_version"] = kBundleFormatVersion;
  out["heron_version"] = HERON_STAT_VERSION;
  Json& times = out["capture"] = Json::object();
  times["start"] = startWall;
  times["start_monotonic"] = startMono;
  out["host"] = validUtf8(hostText());
  out["kernel"] = validUtf8(kernelText());
  out["root"] = validUtf8(sample.root);
  return out;
}

// The copied tables as a sample: figures from the copies, the rest from
// the live sample.
bool copiedSample(const std::string& stagedRoot, const Sample& live, const Thresholds& thresholds, Json& out,
                  std::string& error) {
  CollectOptions offline;
  offline.walkProcesses = false;
  Sample copied;
  {
    const RootOverride root(stagedRoot);
    copied = collect(offline);
  }
  const nlohmann::json liveJson = nlohmann::json::parse(renderJson(live), nullptr, false);
  if (!overlayLiveSample(liveJson, stagedRoot, copied, error)) {
    return false;
  }
  copied.expr = live.expr;
  assess(copied, thresholds);
  out = Json::parse(renderJson(copied), nullptr, false);
  return !out.is_discarded();
}

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

class ArchiveWriter {
 public:
  ArchiveWriter() : archive_(archive_write_new(), archive_write_free) {}
  bool open(int fd, bool zstd, std::string& error) {
    archive_write_set_format_pax_restricted(archive_.get());
    // Whole records of 128 KiB: ten times fewer writes than tar's 10 KiB
    // for a bundle of large regions; any tar reads them.
    archive_write_set_bytes_per_block(archive_.get(), kRecordBytes);
    if (zstd && archive_write_add_filter_zstd(archive_.get()) != ARCHIVE_OK) {
      return fail(error);
    }
    // Compression in a worker of its own, as tar --zstd has in its zstd
    // process; a library without the option compresses inline.
    if (zstd) {
      archive_write_set_filter_option(archive_.get(), "zstd", "threads", "1");
    }
    return archive_write_open_fd(archive_.get(), fd) == ARCHIVE_OK || fail(error);
  }
  bool directory(const std::string& name, double time, std::string& error) {
    return header(name, AE_IFDIR, 0755, 0, time, error);
  }
  bool header(const std::string& name, unsigned type, unsigned mode, std::uint64_t size, double time,
              std::string& error) {
    std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), type);
    archive_entry_set_perm(entry.get(), mode);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
    archive_entry_set_mtime(entry.get(), static_cast<time_t>(time), 0);
    return archive_write_header(archive_.get(), entry.get()) == ARCHIVE_OK || fail(error);
  }
  bool data(const void* bytes, std::size_t size, std::string& error) {
    return archive_write_data(archive_.get(), bytes, size) == static_cast<la_ssize_t>(size) || fail(error);
  }
  bool close(std::string& error) { return archive_write_close(archive_.get()) == ARCHIVE_OK || fail(error); }
  archive* get() { return archive_.get(); }

 private:
  bool fail(std::string& error) {
    const char* text = archive_error_string(archive_.get());
    error = text != nullptr ? text : std::strerror(errno);
    return false;
  }
  std::unique_ptr<archive, int (*)(archive*)> archive_;
};

bool writeText(ArchiveWriter& writer, const std::string& name, const std::string& text, double time,
               std::string& error) {
  return writer.header(name, AE_IFREG, 0644, text.size(), time, error) && writer.data(text.data(), text.size(), error);
}

// Each directory of `name` ("tables/md/eu/quotes") not written yet.
bool writeDirectories(ArchiveWriter& writer, const std::string& name, std::vector<std::string>& done, double time,
                      std::string& error) {
  for (std::size_t at = name.find('/'); at != std::string::npos; at = name.find('/', at + 1)) {
    const std::string dir = name.substr(0, at) + "/";
    if (std::find(done.begin(), done.end(), dir) == done.end()) {
      done.push_back(dir);
      if (!writer.directory(dir, time, error)) {
        return false;
      }
    }
  }
  return true;
}

// The archive, into `fd`: the tables' files, then the manifest, which holds
// their sums.
bool writeBundle(int fd, bool zstd, std::vector<CopiedFile>& files, Json& manifest, double time, std::string& error) {
  ArchiveWriter writer;
  if (!writer.open(fd, zstd, error) || !writer.directory(std::string(kTablesDir) + "/", time, error)) {
    return false;
  }
  std::vector<std::string> done{std::string(kTablesDir) + "/"};
  Json list = Json::array();
  for (CopiedFile& file : files) {
    if (!writeDirectories(writer, file.entry, done, time, error) ||
        !writer.header(file.entry, AE_IFREG, 0644, file.size, time, error) ||
        !streamCopy(
            file, [&writer, &error](const void* bytes, std::size_t size) { return writer.data(bytes, size, error); })) {
      if (error.empty()) {
        error = "cannot read " + file.entry;
      }
      return false;
    }
    list.push_back(fileJson(file));
  }
  manifest["files"] = std::move(list);
  manifest["capture"]["end"] = Beacon::time();
  manifest["capture"]["end_monotonic"] = Beacon::monoSeconds();
  return writeText(writer, kManifestName, manifest.dump(2) + "\n", time, error) && writer.close(error);
}

Json tablesJson(const Sample& sample) {
  std::vector<std::string> dirs;
  for (const Table& table : sample.tables) {
    dirs.push_back(table.identity.path);
  }
  const std::vector<std::vector<MappingProcess>> processes = mappingProcesses(dirs);
  Json out = Json::array();
  for (std::size_t i = 0; i < sample.tables.size(); ++i) {
    Json& entry = out.emplace_back(Json::object());
    entry["name"] = validUtf8(sample.tables[i].identity.name);
    entry["path"] = validUtf8(sample.tables[i].identity.path);
    Json& list = entry["processes"] = Json::array();
    for (const MappingProcess& process : processes[i]) {
      list.push_back(processJson(process));
    }
  }
  return out;
}

int refuse(const Options& options, const std::string& why) {
  std::cerr << "heron-stat: refusing to write " << printable(options.capture) << " " << why
            << " (see heron-stat --help)" << std::endl;
  return 2;
}

}  // namespace

int capture(const Options& options) {
  const std::string root = Mem::OrbRootPath::collectionRoot();
  const std::string why = refusedOutput(options.capture, root);
  if (!why.empty()) {
    return refuse(options, why);
  }
  // A region's units are read from the file opened for its header: one
  // descriptor per region until the bundle is written.
  struct rlimit descriptors {};
  if (::getrlimit(RLIMIT_NOFILE, &descriptors) == 0 && descriptors.rlim_cur < descriptors.rlim_max) {
    descriptors.rlim_cur = descriptors.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &descriptors);
  }
  ScratchDir scratch;
  std::string error;
  if (!scratch.create(root, error)) {
    std::cerr << "heron-stat: " << error << std::endl;
    return 1;
  }
  const double startWall = Beacon::time();
  const double startMono = Beacon::monoSeconds();
  const Sample live = liveSample(options);
  const std::string trouble = sampleTrouble(live);
  if (!trouble.empty()) {
    std::cerr << "heron-stat: nothing captured: " << printable(trouble) << std::endl;
    return 1;
  }
  Json manifest = manifestHead(live, startWall, startMono);
  manifest["tables"] = tablesJson(live);
  const std::string staged = scratch.path() + "/" + kTablesDir;
  std::vector<CopiedFile> files;
  if (!stageTables(live, staged, files, error)) {
    std::cerr << "heron-stat: cannot copy the tables: " << printable(error) << std::endl;
    return 1;
  }
  Json sample;
  if (!copiedSample(staged, live, options.thresholds, sample, error)) {
    std::cerr << "heron-stat: cannot read the copies: " << printable(error) << std::endl;
    return 1;
  }
  manifest["sample"] = std::move(sample);
  const bool zstd = endsWith(options.capture, ".zst");
  // No fsync, like tar: the rename makes the bundle whole or absent for a
  // reader, and the page cache writes it out at its own pace.
  const std::function<bool(int, std::string&)> write = [&](int fd, std::string& why) {
    return writeBundle(fd, zstd, files, manifest, startWall, why);
  };
  if (!replaceFileBy(options.capture, write, error)) {
    std::cerr << "heron-stat: cannot write the bundle " << printable(error) << std::endl;
    return 1;
  }
  const auto torn = std::count_if(files.begin(), files.end(), [](const CopiedFile& file) { return file.torn; });
  std::cerr << "heron-stat: captured " << live.tables.size() << " table(s), " << files.size() << " file(s), " << torn
            << " torn, to " << printable(options.capture) << std::endl;
  return 0;
}

}  // namespace Stat

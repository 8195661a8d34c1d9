// Reading a bundle: the archive is read once, in order; tables/ is written
// into a private directory (sparse where the copy is zeros) and collected
// like a live root; the manifest's sample supplies what the files cannot
// (BundleSample.cpp).
#include "Bundle.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "Beacon/UniqueFd.h"
#include "Mem/RootPath.h"
#include "Output.h"
#include "Render.h"

namespace Stat {

namespace {

using ParsedJson = nlohmann::json;

// A manifest larger than this is not one heron-stat wrote.
constexpr la_int64_t kMaxManifestBytes = 64LL << 20;

int removeTree(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) {
    return 0;
  }
  if (S_ISDIR(st.st_mode)) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
    if (dir) {
      std::vector<std::string> names;
      while (const dirent* entry = ::readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
          names.push_back(name);
        }
      }
      for (const std::string& name : names) {
        removeTree(path + "/" + name);
      }
    }
    return ::rmdir(path.c_str());
  }
  return ::unlink(path.c_str());
}

// "tables/NAME/FILE" split into components, each a plain name: no absolute
// path, no "." or "..", nothing empty. Empty when the path is not that.
std::vector<std::string> safeComponents(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t at = 0;
  while (at <= path.size()) {
    std::size_t end = path.find('/', at);
    if (end == std::string::npos) {
      end = path.size();
    }
    const std::string part = path.substr(at, end - at);
    if (part == "." || part == "..") {
      return {};
    }
    if (!part.empty()) {
      parts.push_back(part);
    } else if (end != path.size() || at == 0) {
      // A doubled or leading slash; a single trailing one (directories) is fine.
      if (!(end == path.size() && !parts.empty())) {
        return {};
      }
    }
    at = end + 1;
  }
  return parts;
}

bool makeDirs(const std::string& base, const std::vector<std::string>& parts, std::size_t count, std::string& error) {
  std::string path = base;
  for (std::size_t i = 0; i < count; ++i) {
    path += "/" + parts[i];
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
      error = std::string("cannot make a directory for it: ") + std::strerror(errno);
      return false;
    }
  }
  return true;
}

bool isZeros(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i) {
    if (bytes[i] != 0) {
      return false;
    }
  }
  return true;
}

// Writes the entry's data to `path` (a new file), leaving holes for zeros.
bool extractFile(archive* reader, const std::string& path, la_int64_t size, std::string& error) {
  const Beacon::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd.valid()) {
    error = std::string("cannot extract a file: ") + std::strerror(errno);
    return false;
  }
  bool ok = true;
  for (;;) {
    const void* block = nullptr;
    std::size_t length = 0;
    la_int64_t offset = 0;
    const int status = archive_read_data_block(reader, &block, &length, &offset);
    if (status == ARCHIVE_EOF) {
      break;
    }
    if (status != ARCHIVE_OK && status != ARCHIVE_WARN) {
      error = archive_error_string(reader) != nullptr ? archive_error_string(reader) : "damaged archive";
      ok = false;
      break;
    }
    if (length != 0 && !isZeros(block, length) &&
        ::pwrite(fd.get(), block, length, offset) != static_cast<ssize_t>(length)) {
      error = std::string("cannot extract a file: ") + std::strerror(errno);
      ok = false;
      break;
    }
  }
  if (ok && ::ftruncate(fd.get(), size) != 0) {
    error = std::string("cannot extract a file: ") + std::strerror(errno);
    ok = false;
  }
  return ok;
}

bool readManifest(archive* reader, la_int64_t size, ParsedJson& manifest, std::string& error) {
  if (size < 0 || size > kMaxManifestBytes) {
    error = "the manifest is too large";
    return false;
  }
  std::string text(static_cast<std::size_t>(size), '\0');
  if (archive_read_data(reader, text.data(), text.size()) != static_cast<la_ssize_t>(text.size())) {
    error = archive_error_string(reader) != nullptr ? archive_error_string(reader) : "the manifest is cut short";
    return false;
  }
  manifest = ParsedJson::parse(text, nullptr, false);
  if (manifest.is_discarded() || !manifest.is_object()) {
    error = "the manifest is not a JSON object";
    return false;
  }
  return true;
}

// One entry: the manifest, a directory or a file of tables/.
bool readEntry(archive* reader, archive_entry* entry, const std::string& into, ParsedJson& manifest, bool& sawManifest,
               std::string& error) {
  const char* rawName = archive_entry_pathname(entry);
  const std::string name = rawName != nullptr ? rawName : "";
  const auto type = archive_entry_filetype(entry);
  if (name == kManifestName && type == AE_IFREG) {
    sawManifest = true;
    return readManifest(reader, archive_entry_size(entry), manifest, error);
  }
  const std::vector<std::string> parts = safeComponents(name);
  if (parts.empty() || parts.front() != kTablesDir || (type != AE_IFREG && type != AE_IFDIR)) {
    error = "unexpected entry '" + printable(name) + "'";
    return false;
  }
  if (type == AE_IFDIR) {
    return makeDirs(into, parts, parts.size(), error);
  }
  const la_int64_t size = archive_entry_size(entry);
  if (parts.size() < 2 || size < 0 || !makeDirs(into, parts, parts.size() - 1, error)) {
    error = error.empty() ? "unexpected entry '" + printable(name) + "'" : error;
    return false;
  }
  std::string path = into;
  for (const std::string& part : parts) {
    path += "/" + part;
  }
  return extractFile(reader, path, size, error);
}

bool checkManifest(const ParsedJson& manifest, std::string& error) {
  const auto version = manifest.find("format_version");
  if (version == manifest.end() || !version->is_number_integer()) {
    error = "the manifest has no format version";
    return false;
  }
  const auto number = version->get<long long>();
  if (number < 1 || number > kBundleFormatVersion) {
    error = "bundle format version " + std::to_string(number) + " is newer than this heron-stat reads (" +
            std::to_string(kBundleFormatVersion) + ")";
    return false;
  }
  const auto sample = manifest.find("sample");
  if (sample == manifest.end() || !sample->is_object()) {
    error = "the manifest holds no sample";
    return false;
  }
  return true;
}

}  // namespace

ScratchDir::~ScratchDir() {
  if (!path_.empty()) {
    removeTree(path_);
  }
}

bool ScratchDir::create(const std::string& root, std::string& error) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/heron-stat.XXXXXX";
  if (insideRoot(pattern, root)) {
    error = "the temporary directory " + printable(pattern) + " lies inside the collection root; set TMPDIR";
    return false;
  }
  if (::mkdtemp(pattern.data()) == nullptr) {
    error = "cannot make a temporary directory: " + std::string(std::strerror(errno));
    return false;
  }
  path_ = pattern;
  return true;
}

RootOverride::RootOverride(const std::string& root) {
  const char* was = std::getenv("HERON_ROOT");
  hadRoot_ = was != nullptr;
  root_ = was != nullptr ? was : "";
  const char* chroot = std::getenv("Q7_CHROOT");
  hadChroot_ = chroot != nullptr;
  chroot_ = chroot != nullptr ? chroot : "";
  ::setenv("HERON_ROOT", root.c_str(), 1);
  ::unsetenv("Q7_CHROOT");
}

RootOverride::~RootOverride() {
  if (hadRoot_) {
    ::setenv("HERON_ROOT", root_.c_str(), 1);
  } else {
    ::unsetenv("HERON_ROOT");
  }
  if (hadChroot_) {
    ::setenv("Q7_CHROOT", chroot_.c_str(), 1);
  }
}

bool readBundle(const std::string& path, const std::string& into, ParsedJson& manifest, std::string& error) {
  std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
  archive_read_support_format_tar(reader.get());
  archive_read_support_filter_zstd(reader.get());
  archive_read_support_filter_none(reader.get());
  if (archive_read_open_filename(reader.get(), path.c_str(), 1 << 16) != ARCHIVE_OK) {
    error = archive_error_string(reader.get()) != nullptr ? archive_error_string(reader.get()) : "cannot open";
    return false;
  }
  bool sawManifest = false;
  archive_entry* entry = nullptr;
  for (;;) {
    const int status = archive_read_next_header(reader.get(), &entry);
    if (status == ARCHIVE_EOF) {
      break;
    }
    if (status != ARCHIVE_OK && status != ARCHIVE_WARN) {
      error = archive_error_string(reader.get()) != nullptr ? archive_error_string(reader.get()) : "damaged archive";
      return false;
    }
    if (!readEntry(reader.get(), entry, into, manifest, sawManifest, error)) {
      return false;
    }
  }
  if (!sawManifest) {
    error = "no manifest.json: not a heron-stat bundle";
    return false;
  }
  return checkManifest(manifest, error);
}

bool fromBundle(const std::string& path, const CollectOptions& options, const Thresholds& thresholds, Sample& sample,
                std::string& error) {
  ScratchDir scratch;
  if (!scratch.create(Mem::OrbRootPath::collectionRoot(), error)) {
    return false;
  }
  ParsedJson manifest;
  if (!readBundle(path, scratch.path(), manifest, error)) {
    error = "cannot read the bundle " + printable(path) + ": " + printable(error);
    return false;
  }
  const std::string tables = scratch.path() + "/" + kTablesDir;
  if (::mkdir(tables.c_str(), 0700) != 0 && errno != EEXIST) {
    error = std::string("cannot make a temporary directory: ") + std::strerror(errno);
    return false;
  }
  CollectOptions offline = options;
  offline.walkProcesses = false;
  offline.allRoots = false;
  {
    const RootOverride root(tables);
    sample = collect(offline);
  }
  if (!overlayLiveSample(manifest["sample"], tables, sample, error)) {
    error = "cannot read the bundle " + printable(path) + ": " + error;
    return false;
  }
  if (sample.tables.empty() && !sample.expr.empty()) {
    sample.problems.clear();
    sample.problems.push_back({Severity::Warning, noMatchText(sample)});
  }
  if (!sample.rootOk) {
    sample.rootError = "the bundle's tables cannot be listed";
  }
  assess(sample, thresholds);
  return true;
}

}  // namespace Stat

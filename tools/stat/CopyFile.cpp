// Every table file is opened O_RDONLY|O_NOFOLLOW; shared words are read
// through a read-only mapping of the file's first bytes, with the loads the
// readers use, and the rest with pread.
#include "CopyFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "Beacon/SharedWord.h"
#include "Quarry/QuarryFormat.h"
#include "Relay/RelayTable.h"

namespace Stat {

namespace {

constexpr std::size_t kChunk = 1 << 20;
constexpr std::size_t kRegionGeneration = offsetof(Quarry::RegionHeader, generation);
constexpr std::size_t kRegionDataOffset = offsetof(Quarry::RegionHeader, dataOffset);
constexpr std::size_t kQuarryGeneration = offsetof(Quarry::QuarryHeader, generation);

int openTableFile(const std::string& path) { return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC); }

std::uint64_t fileSize(int fd) {
  struct stat st {};
  return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? static_cast<std::uint64_t>(st.st_size) : 0;
}

// The first bytes of a table file, mapped read-only and shared, so that its
// words are loaded as the writer stores them.
class HeaderView {
 public:
  HeaderView(int fd, std::size_t need) {
    if (fileSize(fd) >= need) {
      void* at = ::mmap(nullptr, need, PROT_READ, MAP_SHARED, fd, 0);
      if (at != MAP_FAILED) {
        base_ = at;
        size_ = need;
      }
    }
  }
  ~HeaderView() {
    if (base_ != nullptr) {
      ::munmap(base_, size_);
    }
  }
  HeaderView(const HeaderView&) = delete;
  HeaderView& operator=(const HeaderView&) = delete;
  bool ok() const { return base_ != nullptr; }
  const void* data() const { return base_; }
  std::uint64_t load64(std::size_t at) const { return ok() ? Beacon::Shared::load64(base_, at) : 0; }
  std::uint32_t load32(std::size_t at) const { return ok() ? Beacon::Shared::load32(base_, at) : 0; }

 private:
  void* base_ = nullptr;
  std::size_t size_ = 0;
};

// Copies `in` from its start to its end into `out` (emptied first).
bool copyWhole(int in, int out) {
  if (::ftruncate(out, 0) != 0) {
    return false;
  }
  std::unique_ptr<char[]> buffer(new char[kChunk]);
  off_t at = 0;
  for (;;) {
    const ssize_t got = ::pread(in, buffer.get(), kChunk, at);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return got == 0;
    }
    if (::pwrite(out, buffer.get(), static_cast<std::size_t>(got), at) != got) {
      return false;
    }
    at += got;
  }
}

int createStaged(const std::string& path) {
  return ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
}

// A file copied once, as it is: owner, ember, and a file too short for
// its header.
bool copyPlain(int in, int out, CopiedFile& file) {
  if (!copyWhole(in, out)) {
    return false;
  }
  file.size = file.stagedBytes = fileSize(out);
  return true;
}

bool stagePlain(CopiedFile& file) {
  const Beacon::UniqueFd in(openTableFile(file.live));
  const Beacon::UniqueFd out(createStaged(file.staged));
  return in.valid() && out.valid() && copyPlain(in.get(), out.get(), file);
}

// Tries between pauses while the generation word moves.
constexpr unsigned kTriesBeforePause = 64;

// Copies `size` bytes of `view` into `into` until the generation word at
// `at` is even and the same before and after; the attempts it took, or 0
// when it never was within the bound.
unsigned copyByGeneration(const HeaderView& view, std::size_t at, char* into, std::size_t size,
                          std::uint64_t& generation) {
  for (unsigned attempt = 1; attempt <= kHeaderCopyAttempts; ++attempt) {
    const std::uint64_t before = view.load64(at);
    std::memcpy(into, view.data(), size);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (before % 2 == 0 && view.load64(at) == before) {
      generation = before;
      return attempt;
    }
    // A writer between its two bumps of the generation may have lost its
    // core: after each burst of tries it is given time to finish, so that
    // the bound is not spent in microseconds on a loaded machine.
    if (attempt % kTriesBeforePause == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
  return 0;
}

// The allocator file: copied until its generation is even and unchanged.
// A file too short for its header is copied as it is: its reader says why.
bool stageQuarry(CopiedFile& file) {
  const Beacon::UniqueFd in(openTableFile(file.live));
  const Beacon::UniqueFd out(createStaged(file.staged));
  if (!in.valid() || !out.valid()) {
    return false;
  }
  const HeaderView view(in.get(), sizeof(Quarry::QuarryHeader));
  if (!view.ok()) {
    return copyPlain(in.get(), out.get(), file);
  }
  char copy[sizeof(Quarry::QuarryHeader)];
  const unsigned attempts = copyByGeneration(view, kQuarryGeneration, copy, sizeof copy, file.generation);
  file.attempts = attempts != 0 ? attempts : kHeaderCopyAttempts;
  file.torn = attempts == 0;
  if (::pwrite(out.get(), copy, sizeof copy, 0) != static_cast<ssize_t>(sizeof copy)) {
    return false;
  }
  file.size = file.stagedBytes = sizeof copy;
  return true;
}

// A region: its header and bitmap copied by generation into a sparse file
// of the region's size; the units are read when the bundle is written. A
// header that cannot be trusted makes the whole file one plain copy.
bool stageRegion(CopiedFile& file) {
  Beacon::UniqueFd in(openTableFile(file.live));
  const Beacon::UniqueFd out(createStaged(file.staged));
  if (!in.valid() || !out.valid()) {
    return false;
  }
  const std::uint64_t size = fileSize(in.get());
  std::uint64_t guarded = 0;
  {
    const HeaderView header(in.get(), sizeof(Quarry::RegionHeader));
    guarded = header.load32(kRegionDataOffset);
    if (!header.ok() || guarded < sizeof(Quarry::RegionHeader) || guarded > size) {
      return copyPlain(in.get(), out.get(), file);
    }
  }
  const HeaderView view(in.get(), static_cast<std::size_t>(guarded));
  std::string buffer(guarded, '\0');
  const unsigned attempts =
      view.ok() ? copyByGeneration(view, kRegionGeneration, buffer.data(), guarded, file.generation) : 0;
  file.attempts = attempts != 0 ? attempts : kHeaderCopyAttempts;
  file.torn = attempts == 0;
  if (::pwrite(out.get(), buffer.data(), guarded, 0) != static_cast<ssize_t>(guarded) ||
      ::ftruncate(out.get(), static_cast<off_t>(size)) != 0) {
    return false;
  }
  file.size = size;
  file.stagedBytes = guarded;
  file.dataFromLive = guarded < size;
  if (file.dataFromLive) {
    file.liveFile = std::move(in);
  }
  return true;
}

using RelayHeader = Relay::RelayHeaderLayout;

// What must not move while the queue pair is copied: the switch word (a
// flip resets and rewrites a table) and each table's capacity word.
struct QueueToken {
  std::uint64_t words[3] = {0, 0, 0};
  bool operator==(const QueueToken& other) const { return std::equal(words, words + 3, other.words); }
};

QueueToken queueToken(const HeaderView& primary, const HeaderView& secondary) {
  QueueToken token;
  token.words[0] = primary.load64(Relay::Shared::kSwitchWord);
  token.words[1] = primary.load64(Relay::Shared::kNotificationsWord);
  token.words[2] = secondary.load64(Relay::Shared::kNotificationsWord);
  return token;
}

// relay.1 and relay.2 together, retried until nothing moved.
bool stageQueues(CopiedFile& primary, CopiedFile& secondary) {
  const Beacon::UniqueFd in1(openTableFile(primary.live));
  const Beacon::UniqueFd in2(openTableFile(secondary.live));
  const Beacon::UniqueFd out1(createStaged(primary.staged));
  const Beacon::UniqueFd out2(createStaged(secondary.staged));
  if (!in1.valid() || !in2.valid() || !out1.valid() || !out2.valid()) {
    return false;
  }
  const HeaderView view1(in1.get(), sizeof(RelayHeader));
  const HeaderView view2(in2.get(), sizeof(RelayHeader));
  const bool checked = view1.ok() && view2.ok();
  unsigned attempts = 0;
  bool torn = checked;
  while (attempts < kQueueCopyAttempts) {
    ++attempts;
    const QueueToken before = queueToken(view1, view2);
    if (!copyWhole(in1.get(), out1.get()) || !copyWhole(in2.get(), out2.get())) {
      return false;
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (!checked || queueToken(view1, view2) == before) {
      torn = false;
      break;
    }
  }
  for (CopiedFile* file : {&primary, &secondary}) {
    file->attempts = attempts;
    file->torn = torn;
    file->size = file->stagedBytes = fileSize(file == &primary ? out1.get() : out2.get());
  }
  return true;
}

// Region files of a table directory, by id.
std::vector<std::uint32_t> regionIds(const std::string& dir) {
  std::vector<std::uint32_t> ids;
  std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(dir.c_str()), ::closedir);
  if (!listing) {
    return ids;
  }
  const std::string prefix = Quarry::kRegionFilePrefix;
  while (const dirent* entry = ::readdir(listing.get())) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) {
      continue;
    }
    const std::string digits = name.substr(prefix.size());
    const bool plain = !digits.empty() && digits.size() <= 4 && digits[0] != '0' &&
                       std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (plain && std::stoul(digits) <= Quarry::QuarryHeader::kMaxRegionId) {
      ids.push_back(static_cast<std::uint32_t>(std::stoul(digits)));
    }
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool makeDirs(const std::string& path) {
  for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    ::mkdir(path.substr(0, at).c_str(), 0700);
  }
  return ::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;
}

// A file that could not be copied (gone since the listing) is left out of
// the copies as well as of the bundle.
void keep(bool staged, CopiedFile& file, std::vector<CopiedFile>& files) {
  if (staged) {
    files.push_back(std::move(file));
  } else {
    ::unlink(file.staged.c_str());
  }
}

void stageTable(const Table& table, const std::string& stagedRoot, std::vector<CopiedFile>& files) {
  const std::string& dir = table.identity.path;
  const std::string staged = stagedRoot + "/" + table.identity.name;
  auto file = [&](const std::string& name) {
    CopiedFile copy;
    copy.entry = "tables/" + table.identity.name + "/" + name;
    copy.live = dir + "/" + name;
    copy.staged = staged + "/" + name;
    return copy;
  };
  for (const char* name : {"owner", "ember"}) {
    CopiedFile copy = file(name);
    if (exists(copy.live)) {
      keep(stagePlain(copy), copy, files);
    }
  }
  CopiedFile quarry = file(Quarry::kQuarryFileName);
  if (exists(quarry.live)) {
    keep(stageQuarry(quarry), quarry, files);
  }
  for (std::uint32_t id : regionIds(dir)) {
    CopiedFile region = file(Quarry::kRegionFilePrefix + std::to_string(id));
    keep(stageRegion(region), region, files);
  }
  CopiedFile primary = file("relay.1");
  CopiedFile secondary = file("relay.2");
  if (exists(primary.live) && exists(secondary.live)) {
    const bool staged = stageQueues(primary, secondary);
    keep(staged, primary, files);
    keep(staged, secondary, files);
    return;
  }
  // One queue file alone cannot be checked against the other: as it is.
  for (CopiedFile* alone : {&primary, &secondary}) {
    if (exists(alone->live)) {
      keep(stagePlain(*alone), *alone, files);
    }
  }
}

class Sha256 {
 public:
  Sha256() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) { EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr); }
  void add(const void* bytes, std::size_t size) { EVP_DigestUpdate(context_.get(), bytes, size); }
  std::string hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(context_.get(), digest, &length);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < length; ++i) {
      out += kDigits[digest[i] >> 4];
      out += kDigits[digest[i] & 15];
    }
    return out;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context_;
};

// Bytes [from, to) of `fd` to `sink`; zeros past the end of a file cut
// short, which then counts as torn.
bool streamRange(int fd, std::uint64_t from, std::uint64_t to, Sha256& sum, bool& cut,
                 const std::function<bool(const void*, std::size_t)>& sink) {
  std::unique_ptr<char[]> buffer(new char[kChunk]);
  for (std::uint64_t at = from; at < to;) {
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, to - at));
    ssize_t got = fd >= 0 ? ::pread(fd, buffer.get(), want, static_cast<off_t>(at)) : 0;
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      cut = true;
      std::memset(buffer.get(), 0, want);
      got = static_cast<ssize_t>(want);
    }
    sum.add(buffer.get(), static_cast<std::size_t>(got));
    if (!sink(buffer.get(), static_cast<std::size_t>(got))) {
      return false;
    }
    at += static_cast<std::uint64_t>(got);
  }
  return true;
}

}  // namespace

bool stageTables(const Sample& sample, const std::string& stagedRoot, std::vector<CopiedFile>& files,
                 std::string& error) {
  for (const Table& table : sample.tables) {
    const std::string dir = stagedRoot + "/" + table.identity.name;
    if (!makeDirs(dir)) {
      error = "cannot make " + dir + ": " + std::strerror(errno);
      return false;
    }
    stageTable(table, stagedRoot, files);
  }
  return true;
}

bool streamCopy(CopiedFile& file, const std::function<bool(const void*, std::size_t)>& sink) {
  Sha256 sum;
  bool cut = false;
  {
    const Beacon::UniqueFd staged(::open(file.staged.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!staged.valid() || !streamRange(staged.get(), 0, file.stagedBytes, sum, cut, sink)) {
      return false;
    }
  }
  if (file.dataFromLive) {
    if (!file.liveFile.valid()) {
      file.liveFile = Beacon::UniqueFd(openTableFile(file.live));
    }
    const Beacon::UniqueFd live(std::move(file.liveFile));
    if (!streamRange(live.get(), file.stagedBytes, file.size, sum, cut, sink)) {
      return false;
    }
    const HeaderView view(live.get(), sizeof(Quarry::RegionHeader));
    file.changedAfterward = !view.ok() || view.load64(kRegionGeneration) != file.generation;
  }
  file.torn = file.torn || cut;
  file.sha256 = sum.hex();
  return true;
}

}  // namespace Stat

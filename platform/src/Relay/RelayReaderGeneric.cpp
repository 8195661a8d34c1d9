// Read-only attachment to the two queue files, the consistent snapshot scan
// and the queue printer.
#include "Relay/RelayReaderGeneric.h"

#include <fmt/format.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <iostream>

#include "Beacon/Trace.h"
#include "Beacon/Util.h"
#include "Quarry/Offset.h"

namespace Relay {

namespace {

constexpr const char* kClass = "RelayReaderGeneric";

// Lines are formatted into this buffer and handed to the report in chunks.
template <typename Notification>
class LineBuffer {
 public:
  explicit LineBuffer(std::ostream& out) : out_(out) {}
  ~LineBuffer() { flush(); }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  // Room for one line of at most kLineMax bytes.
  char* reserveLine() {
    if (sizeof buffer_ - used_ < kLineMax) {
      flush();
    }
    return buffer_ + used_;
  }
  void commit(std::size_t length) { used_ += length; }
  void flush() {
    if (used_ != 0) {
      out_.write(buffer_, static_cast<std::streamsize>(used_));
      used_ = 0;
    }
  }

  // "pos: " and 10 + "  |  " + the slot's text + "\n".
  static constexpr std::size_t kLineMax = 20 + Notification::kDumpMax + 1;

 private:
  std::ostream& out_;
  std::size_t used_ = 0;
  char buffer_[64 * 1024] = {};
};

// Reports of more lines than this get their room reserved.
constexpr std::size_t kLargeReport = 4096;

// Asks for huge pages for the whole pages of fresh memory [data, data +
// bytes) before it is first touched: first touches of thousands of small
// pages cost more than the copy itself. Small ranges are left alone.
void adviseHugePages(const void* data, std::size_t bytes) {
  constexpr std::size_t kPage = 4096;
  if (bytes < (4U << 20)) {
    return;
  }
  const std::size_t misalignment = reinterpret_cast<std::uintptr_t>(data) % kPage;
  const std::size_t skip = misalignment == 0 ? 0 : kPage - misalignment;
  const std::size_t length = (bytes - skip) / kPage * kPage;
  char* start = static_cast<char*>(const_cast<void*>(data)) + skip;
  ::madvise(start, length, MADV_HUGEPAGE);
}

// Anonymous memory for a large report, on huge pages where the kernel
// allows it; empty when size is 0 or the mapping fails.
class ReportBuffer {
 public:
  explicit ReportBuffer(std::size_t size) {
    if (size == 0) {
      return;
    }
    void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) {
      return;
    }
    ::madvise(base, size, MADV_HUGEPAGE);
    base_ = static_cast<char*>(base);
    size_ = size;
  }
  ~ReportBuffer() {
    if (base_ != nullptr) {
      ::munmap(base_, size_);
    }
  }
  ReportBuffer(const ReportBuffer&) = delete;
  ReportBuffer& operator=(const ReportBuffer&) = delete;

  char* data() const { return base_; }
  std::size_t size() const { return size_; }

 private:
  char* base_ = nullptr;
  std::size_t size_ = 0;
};

// "pos: " + index left-aligned in 10 blanks + "  |  ".
std::size_t putPosition(char* out, std::uint32_t index) {
  std::copy_n("pos: ", 5, out);
  std::size_t at = 5 + Beacon::Util::putDecimal(out + 5, index);
  while (at < 15) {
    out[at++] = ' ';
  }
  std::copy_n("  |  ", 5, out + at);
  return at + 5;
}

}  // namespace

template <typename Slot>
RelayReaderGeneric<Slot>::RelayReaderGeneric(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root,
                                             bool writer, Mem::MapExtent extent)
    : RelayTable<Slot>(handler, root, writer), extent_(extent) {}

template <typename Slot>
bool RelayReaderGeneric<Slot>::initialize() {
  for (unsigned id = 0; id < 2; ++id) {
    Mem::Tracked<Mem::SharedMemWrapper>& file = this->files_[id];
    // A missing or empty file fails the attach: no separate size test, which
    // would look the path up once more.
    const void* base = file.attach(static_cast<unsigned>(Base::kHeaderSize), Mem::Mode::ReadOnly, nullptr);
    if (base == nullptr) {
      return false;
    }
    header_[id] = static_cast<const Header*>(base);
    notificationsRef_[id] = reinterpret_cast<const Mem::VersionedRef<unsigned>*>(static_cast<const char*>(base) +
                                                                                 Shared::kNotificationsWord);
    cachedNotifications_[id] = Mem::VersionedRef<unsigned>{0xFFFFFFFFU, 0};
  }

  // Validated against the sizes the opens saw; only when that fails are
  // the files asked again (a writer may have grown one since).
  std::string error;
  auto validate = [this, &error](bool fresh) {
    for (unsigned id = 0; id < 2; ++id) {
      const Mem::Tracked<Mem::SharedMemWrapper>& file = this->files_[id];
      const std::size_t size = fresh ? file.memSize() : file.knownSize();
      error.clear();
      if (!header_[id]->validateSize(this->debugHandler(), size, 0, error)) {
        return false;
      }
    }
    return true;
  };
  const bool valid = validate(false) || validate(true);
  if (!valid) {
    lastError_ = "Relay " + this->name_ + " validation failed: " + error;
    if (errors_ != nullptr) {
      *errors_ << lastError_ << std::endl;
    }
    return false;
  }

  switchSnapshot_ = Shared::load64(header_[Base::PRIMARY], Shared::kSwitchWord);
  resizeRelay(Base::PRIMARY);
  currentPos_[Base::PRIMARY] = Shared::load32(header_[Base::PRIMARY], Shared::kCurrentPos);
  resizeRelay(Base::SECONDARY);
  currentPos_[Base::SECONDARY] = Shared::load32(header_[Base::SECONDARY], Shared::kCurrentPos);
  // A file that shrank during the loads above was read as zeros; say so.
  checkMapping(Base::PRIMARY);
  checkMapping(Base::SECONDARY);
  return true;
}

template <typename Slot>
void RelayReaderGeneric<Slot>::resizeRelay(RelayTableId id) {
  const std::uint64_t word = Shared::load64(header_[id], Shared::kNotificationsWord);
  const Mem::VersionedRef<unsigned> live{Shared::low(word), Shared::high(word)};
  if (live.version == cachedNotifications_[id].version) {
    return;
  }
  cachedNotifications_[id] = live;
  if (extent_ == Mem::MapExtent::Header) {
    return;  // the slots are never mapped: no mapping follows the capacity
  }
  Mem::Tracked<Mem::SharedMemWrapper>& file = this->files_[id];
  const std::size_t need = Header::fileSize(live.value);
  // Table files never shrink: a size seen before that holds the mapping
  // still does (a file cut against the rule is caught by checkMapping). The
  // file is asked again only when the announcement outgrew that size.
  const std::size_t real = need <= file.knownSize() ? file.knownSize() : file.memSize();
  // Never map past the end of the file: touching such a page faults.
  Beacon::fmassert(need <= real, __FILE__, __func__, __LINE__, kClass,
                   "requesting to map {} {} relay notifications. Requested file resize to {} but real file size is {}",
                   file.name(), live.value, need, real);
  const void* base = file.remap(need, real);
  if (base != nullptr) {
    header_[id] = static_cast<const Header*>(base);
    notificationsRef_[id] = reinterpret_cast<const Mem::VersionedRef<unsigned>*>(static_cast<const char*>(base) +
                                                                                 Shared::kNotificationsWord);
    return;
  }
  Beacon::MemoryResourceException::throwException(Beacon::fmtracestr(this->debugHandler(), __FILE__, __func__, __LINE__,
                                                                     kClass, "failed to resize {} to size {}: {}",
                                                                     file.name(), need, file.lastError()));
}

template <typename Slot>
void RelayReaderGeneric<Slot>::checkMapping(RelayTableId id) const {
  const Mem::Tracked<Mem::SharedMemWrapper>& file = this->files_[id];
  const std::size_t mapped = file.mappedSize();
  const std::size_t real = file.memSize();
  // Table files never shrink; one that did would fault the next access.
  Beacon::fmassert(real >= mapped, __FILE__, __func__, __LINE__, kClass,
                   "{} shrank to {} bytes, below its {}-byte mapping of {} relay notifications", file.name(), real,
                   mapped, cachedNotifications_[id].value);
}

template <typename Slot>
typename RelayReaderGeneric<Slot>::Header RelayReaderGeneric<Slot>::header(RelayTableId id) const {
  Header copy{};
  if (header_[id] == nullptr) {
    return copy;
  }
  checkMapping(id);
  // Word by word, each one 64-bit load: the paired 32-bit fields of the
  // switch and notifications words come out consistent.
  std::uint64_t words[sizeof(Header) / 8];
  for (std::size_t i = 0; i < sizeof(Header) / 8; ++i) {
    words[i] = Shared::load64(header_[id], sizeof(std::uint64_t) * i);
  }
  std::memcpy(static_cast<void*>(&copy), words, sizeof copy);
  return copy;
}

template <typename Slot>
void RelayReaderGeneric<Slot>::formatIndividualRelayHeader(const Header& header, std::ostream& out) const {
  // fmt keeps the magic lowercase and unpadded whatever the stream's flags.
  out << "\n\t\tMagic: 0x" << fmt::format("{:x}", header.magic) << std::dec;
  out << " (\"" << Beacon::Util::decodeMagic(header.magic) << "\")\n";
  out << "\t\tVersion: " << header.version << "\n";
  out << "\t\tEmber: " << header.ember << " (pid: " << header.ember.pid << " instanceId: " << header.ember.instanceId
      << ")\n";
  out << "\t\tNotifications: " << header.notifications << "\n\t\tCurrent position: " << header.currentPos << "\n";
}

template <typename Slot>
bool RelayReaderGeneric<Slot>::collect(RelayTableId id, std::vector<Notification>& into) const {
  const unsigned count = cachedNotifications_[id].value;
  const void* primary = header_[Base::PRIMARY];
  const void* own = header_[id];
  const char* slots = static_cast<const char*>(this->slots(id));
  const std::uint32_t version = Shared::low(switchSnapshot_);
  const std::uint32_t position = currentPos_[id];
  // Sized to the whole capacity up front and written in place: the same
  // result as clearing and appending slot by slot, without the vector's
  // bookkeeping in the loop, and without re-initialising the elements of a
  // vector reused from an earlier attempt (only a restart shortens it).
  const std::size_t had = into.capacity();
  into.reserve(count);
  if (into.capacity() != had) {
    adviseHugePages(into.data(), sizeof(Notification) * static_cast<std::size_t>(count));
  }
  into.resize(count);
  Notification* target = into.data();
  for (unsigned i = 0; i < count; ++i) {
    if (Shared::load32Relaxed(primary, Shared::kSwitchWord) != version ||
        Shared::load32Relaxed(own, Shared::kCurrentPos) != position) {
      into.resize(i);
      return false;
    }
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    std::memcpy(target + i, slots + Base::kSlotSize * i, Base::kSlotSize);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
  }
  return true;
}

template <typename Slot>
unsigned RelayReaderGeneric<Slot>::takeSnapshot(std::vector<Notification> (&snapshot)[2], bool activeOnly) {
  return attempt(snapshot, activeOnly, nullptr);
}

template <typename Slot>
unsigned RelayReaderGeneric<Slot>::attempt(std::vector<Notification> (&snapshot)[2], bool activeOnly,
                                           std::ostringstream* report) {
  Beacon::fmassert(extent_ == Mem::MapExtent::Whole, __FILE__, __func__, __LINE__, kClass,
                   "slots of {} asked of a reader that maps the queue headers only", this->name_);
  unsigned restarts = 0;
  for (;;) {
    if (report != nullptr) {
      report->clear();
      report->str("");
    }
    checkMapping(Base::PRIMARY);
    checkMapping(Base::SECONDARY);
    switchSnapshot_ = Shared::load64(header_[Base::PRIMARY], Shared::kSwitchWord);
    resizeRelay(Base::PRIMARY);
    currentPos_[Base::PRIMARY] = Shared::load32(header_[Base::PRIMARY], Shared::kCurrentPos);
    resizeRelay(Base::SECONDARY);
    currentPos_[Base::SECONDARY] = Shared::load32(header_[Base::SECONDARY], Shared::kCurrentPos);
    const std::uint32_t table = Shared::high(switchSnapshot_);

    // collect clears (resizes) the vector it fills; a table left out is
    // left empty. A copy that raced with the writer starts a new attempt.
    bool copied = true;
    for (const RelayTableId id : {Base::PRIMARY, Base::SECONDARY}) {
      if (activeOnly && table != id) {
        snapshot[id].clear();
        continue;
      }
      copied = collect(id, snapshot[id]);
      if (!copied) {
        break;
      }
    }
    if (!copied) {
      ++restarts;
      continue;
    }
    // A file that shrank during the copy was read as zeros; say so.
    checkMapping(Base::PRIMARY);
    checkMapping(Base::SECONDARY);
    return restarts;
  }
}

template <typename Slot>
void RelayReaderGeneric<Slot>::scan(std::ostream& out, bool activeOnly) {
  // Readable as well as writable, so that its text can be streamed to out
  // without a copy of the whole report.
  std::ostringstream report(std::ios_base::in | std::ios_base::out);
  std::vector<Notification> snapshot[2];
  const double start = Beacon::time();
  const unsigned restarts = attempt(snapshot, activeOnly, &report);
  const double end = Beacon::time();

  // A large report gets its room up front, in one mapping of huge pages:
  // grown by doubling, a report of millions of lines would be copied and
  // faulted in again and again. What stringbuf::setbuf does is left to the
  // library; libstdc++, the one this project builds with, writes into the
  // given array and, should the estimate fall short, moves the text to its
  // own storage and goes on there. The tellp test below covers both cases.
  const std::size_t lines = snapshot[Base::PRIMARY].size() + snapshot[Base::SECONDARY].size();
  ReportBuffer room(lines > kLargeReport ? 4096 + lines * LineBuffer<Notification>::kLineMax : 0);
  if (room.data() != nullptr) {
    report.rdbuf()->pubsetbuf(room.data(), static_cast<std::streamsize>(room.size()));
  }
  printQueue(Base::PRIMARY, snapshot, activeOnly, report);
  printQueue(Base::SECONDARY, snapshot, activeOnly, report);
  report << "Relay scanned in " << (end - start) << " seconds\nRestarted " << restarts << " times";
  const std::streamoff written = report.tellp();
  if (room.data() != nullptr && written > 0 && static_cast<std::size_t>(written) <= room.size()) {
    out.write(room.data(), written);
  } else {
    out << report.rdbuf();
  }
  out << std::endl;
}

template <typename Slot>
void RelayReaderGeneric<Slot>::printQueue(RelayTableId id, std::vector<Notification> (&snapshot)[2], bool activeOnly,
                                          std::ostringstream& out) {
  const std::uint32_t table = Shared::high(switchSnapshot_);
  if (activeOnly && id != table) {
    return;
  }
  out << (id == Base::PRIMARY ? "Primary" : "Secondary") << " relay queue "
      << (id == table ? "(active)\n" : "(backup)\n");
  out << "\tnotifications:" << cachedNotifications_[id] << "\n";
  out << "\tcurrentPos:" << currentPos_[id] << std::endl;
  // Read live at print time.
  const Tock::Sequence corralStart{Shared::load64(header_[id], Shared::kCorralStart)};
  const Tock::Sequence corralEnd{Shared::load64(header_[id], Shared::kCorralEnd)};
  out << "\tcorralStart:" << corralStart << "\n";
  out << "\tcorralEnd:" << corralEnd << std::endl;
  out << "\tepoch:" << Shared::load64(header_[Base::PRIMARY], Shared::epochAt(id)) << "\n\n";

  const std::vector<Notification>& slots = snapshot[id];
  const std::size_t count = slots.size();
  const std::uint32_t position = currentPos_[id];
  {
    LineBuffer<Notification> lines(out);
    for (std::size_t i = 0; i < count; ++i) {
      if (activeOnly) {
        if (i >= position) {
          break;
        }
        if (slots[i].offset == Quarry::Offset::TOMBSTONED) {
          continue;
        }
      }
      char* line = lines.reserveLine();
      std::size_t n = putPosition(line, static_cast<std::uint32_t>(i));
      n += slots[i].dumpTo(line + n);
      line[n++] = '\n';
      lines.commit(n);
    }
  }
  out << "\n";
}

template class RelayReaderGeneric<RelaySlot>;

}  // namespace Relay

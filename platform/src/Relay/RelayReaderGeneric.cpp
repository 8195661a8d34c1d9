// Read-only attachment to the two queue files, the consistent snapshot scan
// and the queue printer.
#include "Relay/RelayReaderGeneric.h"

#include <fmt/format.h>

#include <cstring>
#include <iomanip>
#include <iostream>
#include <limits>

#include "Beacon/Trace.h"
#include "Beacon/Util.h"
#include "Quarry/Offset.h"

namespace Relay {

namespace {

constexpr const char* kClass = "RelayReaderGeneric";
constexpr const char* kSource = "RelayReaderGeneric";

// validate takes the file size as unsigned: a larger file is at least that
// large, which is all the check needs.
unsigned clampSize(std::size_t size) {
  return size > std::numeric_limits<unsigned>::max() ? std::numeric_limits<unsigned>::max()
                                                     : static_cast<unsigned>(size);
}

// Lines are formatted into this buffer and handed to the report in chunks.
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

  static constexpr std::size_t kLineMax = 128;

 private:
  std::ostream& out_;
  std::size_t used_ = 0;
  char buffer_[64 * 1024];
};

// "pos: " + index left-aligned in 10 blanks + "  |  ".
std::size_t putPosition(char* out, std::uint32_t index) {
  std::memcpy(out, "pos: ", 5);
  char digits[10];
  std::size_t n = 0;
  do {
    digits[n++] = static_cast<char>('0' + index % 10);
    index /= 10;
  } while (index != 0);
  std::size_t at = 5;
  for (std::size_t i = 0; i < n; ++i) {
    out[at++] = digits[n - 1 - i];
  }
  while (at < 15) {
    out[at++] = ' ';
  }
  std::memcpy(out + at, "  |  ", 5);
  return at + 5;
}

}  // namespace

template <typename Slot>
RelayReaderGeneric<Slot>::RelayReaderGeneric(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root,
                                             bool writer)
    : RelayTable<Slot>(handler, root, writer) {}

template <typename Slot>
bool RelayReaderGeneric<Slot>::initialize() {
  for (unsigned id = 0; id < 2; ++id) {
    Mem::Tracked<Mem::SharedMemWrapper>& file = this->files_[id];
    if (file.memSize() == 0) {
      return false;
    }
    const void* base = file.attach(static_cast<unsigned>(Base::kHeaderSize), Mem::Mode::ReadOnly, nullptr);
    if (base == nullptr) {
      return false;
    }
    header_[id] = static_cast<const Header*>(base);
    notificationsRef_[id] = reinterpret_cast<const Mem::VersionedRef<unsigned>*>(static_cast<const char*>(base) +
                                                                                 Shared::kNotificationsWord);
    cachedNotifications_[id] = Mem::VersionedRef<unsigned>{0xFFFFFFFFU, 0};
  }

  std::string error;
  bool valid = header_[Base::PRIMARY]->validate(this->debugHandler(), clampSize(this->files_[0].memSize()), 0, error) &&
               header_[Base::SECONDARY]->validate(this->debugHandler(), clampSize(this->files_[1].memSize()), 0, error);
  if (!valid) {
    std::cerr << "Relay " << this->name_ << " validation failed: " << error << std::endl;
    return false;
  }

  switchSnapshot_ = Shared::load64(header_[Base::PRIMARY], Shared::kSwitchWord);
  resizeRelay(Base::PRIMARY);
  currentPos_[Base::PRIMARY] = Shared::load32(header_[Base::PRIMARY], Shared::kCurrentPos);
  resizeRelay(Base::SECONDARY);
  currentPos_[Base::SECONDARY] = Shared::load32(header_[Base::SECONDARY], Shared::kCurrentPos);
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
  Mem::Tracked<Mem::SharedMemWrapper>& file = this->files_[id];
  const std::size_t need = Header::fileSize(live.value);
  const std::size_t real = file.memSize();
  // Never map past the end of the file: touching such a page faults.
  Beacon::fmassert(need <= real, kSource, "resizeRelay", __LINE__, kClass,
                   "requesting to map {} {} relay notifications. Requested file resize to {} but real file size is {}",
                   file.name(), live.value, need, real);
  const void* base = file.remap(need);
  if (base != nullptr) {
    header_[id] = static_cast<const Header*>(base);
    notificationsRef_[id] = reinterpret_cast<const Mem::VersionedRef<unsigned>*>(static_cast<const char*>(base) +
                                                                                 Shared::kNotificationsWord);
    return;
  }
  Beacon::MemoryResourceException::throwException(
      Beacon::fmtracestr(this->debugHandler(), kSource, "resizeRelay", __LINE__, kClass,
                         "failed to resize {} to size {}: {}", file.name(), need, file.lastError()));
}

template <typename Slot>
void RelayReaderGeneric<Slot>::checkMapping(RelayTableId id) const {
  const Mem::Tracked<Mem::SharedMemWrapper>& file = this->files_[id];
  const std::size_t mapped = file.mappedSize();
  const std::size_t real = file.memSize();
  // Table files never shrink; one that did would fault the next access.
  Beacon::fmassert(real >= mapped, kSource, "resizeRelay", __LINE__, kClass,
                   "requesting to map {} {} relay notifications. Requested file resize to {} but real file size is {}",
                   file.name(), cachedNotifications_[id].value, mapped, real);
}

template <typename Slot>
typename RelayReaderGeneric<Slot>::Header RelayReaderGeneric<Slot>::header(RelayTableId id) const {
  Header copy{};
  if (header_[id] == nullptr) {
    return copy;
  }
  checkMapping(id);
  // Word by word, each one 64-bit load: the paired 32-bit fields at 40 and
  // 72 come out consistent.
  std::uint64_t words[sizeof(Header) / 8];
  for (std::size_t i = 0; i < sizeof(Header) / 8; ++i) {
    words[i] = Shared::load64(header_[id], 8 * i);
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
  into.reserve(count);
  const void* primary = header_[Base::PRIMARY];
  const void* own = header_[id];
  // Slot i is at notifications + 12 + 12 * i (byte 84 + 12 * i).
  const char* slots = reinterpret_cast<const char*>(notificationsRef_[id]) + Base::kSlotSize;
  const std::uint32_t version = Shared::low(switchSnapshot_);
  const std::uint32_t position = currentPos_[id];
  for (unsigned i = 0; i < count; ++i) {
    // Checked before each copy: the slot copied last is not re-checked.
    if (Shared::load32(primary, Shared::kSwitchWord) != version ||
        Shared::load32(own, Shared::kCurrentPos) != position) {
      return false;
    }
    const char* slot = slots + Base::kSlotSize * i;
    into.push_back(Notification{Shared::load32(slot, 0), Shared::load32(slot, 4), Shared::load32(slot, 8)});
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

    snapshot[Base::PRIMARY].clear();
    if ((!activeOnly || table == Base::PRIMARY) && !collect(Base::PRIMARY, snapshot[Base::PRIMARY])) {
      ++restarts;
      continue;
    }
    snapshot[Base::SECONDARY].clear();
    if ((!activeOnly || table == Base::SECONDARY) && !collect(Base::SECONDARY, snapshot[Base::SECONDARY])) {
      ++restarts;
      continue;
    }
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

  printQueue(Base::PRIMARY, snapshot, activeOnly, report);
  printQueue(Base::SECONDARY, snapshot, activeOnly, report);
  report << "Relay scanned in " << (end - start) << " seconds\nRestarted " << restarts << " times";
  out << report.rdbuf();
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
  const Tock::Sequence corralStart{Shared::load64(header_[id], 48)};
  const Tock::Sequence corralEnd{Shared::load64(header_[id], 56)};
  out << "\tcorralStart:" << corralStart << "\n";
  out << "\tcorralEnd:" << corralEnd << std::endl;
  out << "\tepoch:" << Shared::load64(header_[Base::PRIMARY], 16 + 8 * static_cast<std::size_t>(id)) << "\n\n";

  const std::vector<Notification>& slots = snapshot[id];
  const std::size_t count = slots.size();
  const std::uint32_t position = currentPos_[id];
  {
    LineBuffer lines(out);
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

// The queue's writer side; the store order is described in RelayWriter.h.
#include "Relay/RelayWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "Beacon/Trace.h"
#include "Beacon/UniqueFd.h"
#include "Quarry/Offset.h"

namespace Relay {

namespace {

constexpr const char* kFileNames[2] = {"relay.1", "relay.2"};
// Writes the header of a fresh, zero-filled file: everything but the magic
// first, the magic last, so that a reader that sees the magic sees the rest.
bool writeHeader(const std::string& path, const RelayWriter::Header& header, std::string& error) {
  const Beacon::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd.valid()) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  const char* bytes = reinterpret_cast<const char*>(&header);
  // Bytes 84..87 are slot 0's first word: the fresh file's zero stays.
  constexpr std::size_t magicSize = sizeof header.magic;
  static_assert(Shared::kMagic == 0, "the magic opens the file");
  const std::size_t body = Shared::kSlots - magicSize;
  bool ok = ::pwrite(fd.get(), bytes + magicSize, body, magicSize) == static_cast<ssize_t>(body) &&
            ::pwrite(fd.get(), bytes, magicSize, 0) == static_cast<ssize_t>(magicSize);
  if (!ok) {
    error = path + ": " + std::strerror(errno);
  }
  return ok;
}

}  // namespace

RelayWriter::RelayWriter(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root)
    : Beacon::Debuggable(handler),
      root_(root),
      files_{{handler, root.fullPath(kFileNames[0])}, {handler, root.fullPath(kFileNames[1])}} {}

bool RelayWriter::createFiles(const Mem::RootPath& root, unsigned capacity, SharedMem::EmberId ember,
                              std::string& error) {
  const std::size_t size = Header::fileSize(capacity);
  if (size == std::numeric_limits<std::size_t>::max()) {
    error = "a capacity of " + std::to_string(capacity) + " notifications does not fit in memory";
    return false;
  }
  for (unsigned id = 0; id < 2; ++id) {
    Header header{};
    header.magic = Table::kMagic;
    header.version = Table::kVersion;
    header.ember = ember;
    // Notification version 1: a reader's first look always maps the slots.
    header.notifications = Mem::VersionedRef<unsigned>{1, capacity};
    header.currentPos = 0;
    // Both corrals start empty at the first sequence.
    header.corralStart = Tock::Sequence{1};
    header.corralEnd = Tock::Sequence{1};
    const std::string path = root.fullPath(kFileNames[id]);
    if (!Mem::SharedMemWrapper::createFile(path, size, error) || !writeHeader(path, header, error)) {
      return false;
    }
  }
  return true;
}

bool RelayWriter::create(unsigned capacity, SharedMem::EmberId ember, std::string& error) {
  return createFiles(root_, capacity, ember, error) && open(error);
}

bool RelayWriter::mapBoth(std::size_t size, std::string& error) {
  for (unsigned id = 0; id < 2; ++id) {
    const void* base = files_[id].isOpen()
                           ? files_[id].remap(size)
                           : files_[id].attach(static_cast<unsigned>(size), Mem::Mode::ReadWrite, nullptr);
    if (base == nullptr || files_[id].writableBase() == nullptr) {
      error = files_[id].name() + ": " + (base == nullptr ? files_[id].lastError() : "not writable");
      header_[0] = header_[1] = nullptr;
      return false;
    }
    header_[id] = static_cast<Header*>(files_[id].writableBase());
  }
  return true;
}

bool RelayWriter::open(std::string& error) {
  if (!mapBoth(Table::kHeaderSize, error)) {
    return false;
  }
  unsigned capacity = 0;
  for (unsigned id = 0; id < 2; ++id) {
    std::string why;
    // The whole size (a queue may need more than 4 GiB - 1 bytes), as the
    // open that mapped the header saw it.
    if (!header_[id]->validateSize(debugHandler(), files_[id].knownSize(), 0, why)) {
      error = files_[id].name() + ": " + why;
      header_[0] = header_[1] = nullptr;
      return false;
    }
    capacity = std::max(capacity, Shared::high(Shared::load64(header_[id], Shared::kNotificationsWord)));
  }
  const std::uint32_t table = Shared::high(Shared::load64(header_[0], Shared::kSwitchWord));
  if (table > 1) {
    error = files_[0].name() + ": current table " + std::to_string(table) + " is neither 0 nor 1";
    header_[0] = header_[1] = nullptr;
    return false;
  }
  if (!mapBoth(Header::fileSize(capacity), error)) {
    return false;
  }
  // A grow that stopped between the two files is finished here.
  for (unsigned id = 0; id < 2; ++id) {
    const std::uint64_t word = Shared::load64(header_[id], Shared::kNotificationsWord);
    if (Shared::high(word) != capacity) {
      Shared::store64(header_[id], Shared::kNotificationsWord, Shared::pair(Shared::low(word) + 1, capacity));
    }
  }
  nextSequence_ = Shared::load64(header_[0], Shared::kLatestSequence) + 1;
  Beacon::fmtrace(debugHandler(), 5, __FILE__, __func__, __LINE__, "RelayWriter",
                  "opened {} with {} notifications, table {}, next sequence {}", root_.path(), capacity, table,
                  nextSequence_);
  return true;
}

unsigned RelayWriter::capacity() const {
  return header_[0] == nullptr ? 0 : Shared::high(Shared::load64(header_[0], Shared::kNotificationsWord));
}

RelayWriter::RelayTableId RelayWriter::currentTable() const {
  return header_[0] != nullptr && Shared::high(Shared::load64(header_[0], Shared::kSwitchWord)) != 0 ? Table::SECONDARY
                                                                                                     : Table::PRIMARY;
}

std::uint32_t RelayWriter::tableVersion() const {
  return header_[0] == nullptr ? 0 : Shared::low(Shared::load64(header_[0], Shared::kSwitchWord));
}

std::uint32_t RelayWriter::notificationsVersion() const {
  return header_[0] == nullptr ? 0 : Shared::low(Shared::load64(header_[0], Shared::kNotificationsWord));
}

unsigned RelayWriter::position(RelayTableId table) const {
  return header_[table] == nullptr ? 0 : Shared::load32(header_[table], Shared::kCurrentPos);
}

unsigned RelayWriter::position() const { return position(currentTable()); }

void RelayWriter::switchTables() {
  if (!isOpen()) {
    return;
  }
  const std::uint64_t switchWord = Shared::load64(header_[0], Shared::kSwitchWord);
  const unsigned other = Shared::high(switchWord) != 0 ? 0U : 1U;
  // Reset the other table first; readers copying it see currentPos move.
  Shared::store32(header_[other], Shared::kCurrentPos, 0);
  Shared::store64(header_[other], Shared::kCorralStart, nextSequence_);
  Shared::store64(header_[other], Shared::kCorralEnd, nextSequence_);
  Shared::store64(header_[0], Shared::epochAt(other), Shared::load64(header_[0], Shared::epochAt(other)) + 1);
  // Then flip the table and bump its version in one store.
  Shared::store64(header_[0], Shared::kSwitchWord, Shared::pair(Shared::low(switchWord) + 1, other));
}

std::uint64_t RelayWriter::append(std::uint32_t offset, std::uint32_t size) {
  const unsigned slots = capacity();
  if (!isOpen() || slots == 0) {
    return 0;
  }
  unsigned table = currentTable();
  std::uint32_t pos = Shared::load32(header_[table], Shared::kCurrentPos);
  if (pos >= slots) {
    switchTables();
    table = currentTable();
    pos = 0;
  }
  const std::uint64_t sequence = nextSequence_++;
  void* slot = reinterpret_cast<char*>(header_[table]) + Shared::slotAt(pos);
  Shared::store32Relaxed(slot, Shared::kSlotSequence, static_cast<std::uint32_t>(sequence));
  Shared::store32Relaxed(slot, Shared::kSlotOffset, offset);
  Shared::store32Relaxed(slot, Shared::kSlotPayloadSize, size);
  Shared::store64(header_[table], Shared::kCorralEnd, sequence + 1);
  Shared::store64(header_[0], Shared::kLatestSequence, sequence);
  // Publishes the slot.
  Shared::store32(header_[table], Shared::kCurrentPos, pos + 1);
  return sequence;
}

bool RelayWriter::tombstone(RelayTableId table, unsigned position) {
  if (!isOpen() || table > 1 || position >= capacity()) {
    return false;
  }
  Shared::store32(reinterpret_cast<char*>(header_[table]) + Shared::slotAt(position), Shared::kSlotOffset,
                  Quarry::Offset::TOMBSTONED);
  return true;
}

bool RelayWriter::tombstone(std::uint64_t sequence) {
  if (!isOpen() || sequence == 0) {
    return false;
  }
  for (unsigned table = 0; table < 2; ++table) {
    const std::uint64_t start = Shared::load64(header_[table], Shared::kCorralStart);
    const std::uint64_t end = Shared::load64(header_[table], Shared::kCorralEnd);
    if (sequence >= start && sequence < end) {
      return tombstone(static_cast<RelayTableId>(table), static_cast<unsigned>(sequence - start));
    }
  }
  return false;
}

bool RelayWriter::grow(unsigned newCapacity, std::string& error) {
  if (!isOpen()) {
    error = "the queue is not open";
    return false;
  }
  const unsigned old = capacity();
  if (newCapacity <= old) {
    error = "a capacity of " + std::to_string(newCapacity) + " is not above the current " + std::to_string(old);
    return false;
  }
  const std::size_t size = Header::fileSize(newCapacity);
  if (size == std::numeric_limits<std::size_t>::max()) {
    error = "a capacity of " + std::to_string(newCapacity) + " notifications does not fit in memory";
    return false;
  }
  // The files first, so that a reader that sees the new capacity can map it.
  for (unsigned id = 0; id < 2; ++id) {
    if (!files_[id].extend(size)) {
      error = files_[id].name() + ": " + files_[id].lastError();
      return false;
    }
  }
  if (!mapBoth(size, error)) {
    return false;
  }
  for (unsigned id = 0; id < 2; ++id) {
    const std::uint64_t word = Shared::load64(header_[id], Shared::kNotificationsWord);
    Shared::store64(header_[id], Shared::kNotificationsWord, Shared::pair(Shared::low(word) + 1, newCapacity));
  }
  return true;
}

void RelayWriter::setConnectedReaders(std::uint32_t readers) {
  if (isOpen()) {
    Shared::store32(header_[0], Shared::kConnectedReaders, readers);
  }
}

}  // namespace Relay

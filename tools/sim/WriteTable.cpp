#include "WriteTable.h"

#include <cstdio>
#include <cstring>
#include <deque>
#include <vector>

#include "Quarry/Offset.h"
#include "Quarry/QuarryWriter.h"
#include "Relay/RelayWriter.h"

namespace Sim {

namespace {

// Payload sizes spread over [8, payloadMax], a function of the sequence
// alone, so that a record's size can be checked against its sequence.
std::uint32_t payloadSize(std::uint64_t sequence, unsigned long long payloadMax) {
  unsigned long long span = payloadMax - 7;
  return static_cast<std::uint32_t>(8 + (sequence * 2654435761ULL) % span);
}

// "seq=<n> " then one letter repeated; NUL-free, so previews show text.
void fillPayload(std::uint64_t sequence, std::uint32_t size, std::vector<char>& out) {
  out.assign(size, static_cast<char>('a' + sequence % 26));
  char head[32];
  int n = std::snprintf(head, sizeof head, "seq=%llu ", static_cast<unsigned long long>(sequence));
  if (n > 0) {
    std::memcpy(out.data(), head, std::min<std::size_t>(static_cast<std::size_t>(n), size));
  }
}

// Unit sizes of the regions the writer creates and deletes as it goes.
constexpr std::uint32_t kChurnSizes[] = {32, 128, 512, 2048};
constexpr std::uint32_t kChurnUnits = 64;

}  // namespace

struct WriteTable::Impl {
  struct Held {
    std::uint64_t sequence;
    std::uint32_t offset;
  };

  Impl(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, const WriteSettings& settings)
      : root(root), settings(settings), relay(handler, root), quarry(handler, root) {}

  Mem::RootPath root;
  WriteSettings settings;
  Relay::RelayWriter relay;
  Quarry::QuarryWriter quarry;
  std::deque<Held> held;
  std::vector<char> payload;
  unsigned long long steps = 0;
  std::uint32_t churnRegion = 0;
  unsigned churnCount = 0;

  // Frees the oldest held entry: its slot is tombstoned before its unit is
  // released, so no live notification ever names a free unit.
  bool releaseOldest() {
    if (held.empty()) {
      return false;
    }
    Held oldest = held.front();
    held.pop_front();
    relay.tombstone(oldest.sequence);
    quarry.release(oldest.offset);
    return true;
  }

  // Entries of a previous writer instance are unknown to this one: their
  // slots are tombstoned and their units released.
  void recover() {
    for (auto table : {Relay::RelayWriter::Table::PRIMARY, Relay::RelayWriter::Table::SECONDARY}) {
      unsigned used = relay.position(table);
      for (unsigned position = 0; position < used; ++position) {
        relay.tombstone(table, position);
      }
    }
    for (std::uint32_t id : quarry.regionIds()) {
      std::uint32_t units = quarry.unitCount(id);
      for (std::uint32_t unit = 0; unit < units; ++unit) {
        std::uint32_t offset = Quarry::Offset::encode(id, unit);
        if (quarry.isAllocated(offset)) {
          quarry.release(offset);
        }
      }
    }
  }

  // Replaces the writer's extra region by a new one of another unit size;
  // entries held in the old one are tombstoned first.
  bool churnRegions(std::string& error) {
    if (churnRegion != 0) {
      std::deque<Held> kept;
      for (const Held& entry : held) {
        if (Quarry::Offset::regionId(entry.offset) == churnRegion) {
          relay.tombstone(entry.sequence);
        } else {
          kept.push_back(entry);
        }
      }
      held.swap(kept);
      quarry.deleteRegion(churnRegion);
      churnRegion = 0;
    }
    std::uint32_t size = kChurnSizes[churnCount++ % (sizeof kChurnSizes / sizeof kChurnSizes[0])];
    churnRegion = quarry.createRegion(size, kChurnUnits, error);
    return churnRegion != 0;
  }

  bool grow(std::string& error) {
    unsigned long long capacity = relay.capacity();
    if (capacity == 0 || capacity * 2 > settings.maxCapacity) {
      return true;
    }
    return relay.grow(static_cast<unsigned>(capacity * 2), error);
  }

  std::uint32_t allocate(std::uint64_t sequence, std::uint32_t size, std::string& error) {
    fillPayload(sequence, size, payload);
    std::uint32_t offset = quarry.allocateFitting(payload.data(), size);
    while (offset == Quarry::Offset::TOMBSTONED && releaseOldest()) {
      offset = quarry.allocateFitting(payload.data(), size);
    }
    if (offset == Quarry::Offset::TOMBSTONED) {
      // Nothing held and still no room: a region that fits.
      std::uint32_t unitSize = 64;
      while (unitSize < size) {
        unitSize *= 2;
      }
      if (quarry.createRegion(unitSize, 256, error) == 0) {
        return Quarry::Offset::TOMBSTONED;
      }
      offset = quarry.allocateFitting(payload.data(), size);
    }
    if (offset == Quarry::Offset::TOMBSTONED) {
      error = "no region entry of " + std::to_string(size) + " bytes can be allocated";
    }
    return offset;
  }
};

WriteTable::WriteTable(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root,
                       const WriteSettings& settings)
    : impl_(new Impl(handler, root, settings)) {}

WriteTable::~WriteTable() = default;

bool WriteTable::open(SharedMem::EmberId, std::string& error) {
  if (!impl_->relay.open(error) || !impl_->quarry.open(error)) {
    return false;
  }
  impl_->recover();
  return true;
}

bool WriteTable::step(std::string& error) {
  Impl& w = *impl_;
  std::uint64_t sequence = w.relay.latestSequence() + 1;
  std::uint32_t size = payloadSize(sequence, w.settings.payloadMax);
  std::uint32_t offset = w.allocate(sequence, size, error);
  if (offset == Quarry::Offset::TOMBSTONED) {
    return false;
  }
  std::uint64_t appended = w.relay.append(offset, size);
  if (appended != sequence) {
    error = "the queue appended sequence " + std::to_string(appended) + ", expected " + std::to_string(sequence);
    return false;
  }
  w.held.push_back({appended, offset});
  while (w.held.size() > w.settings.liveEntries) {
    w.releaseOldest();
  }
  ++w.steps;
  if (w.settings.growEvery != 0 && w.steps % w.settings.growEvery == 0 && !w.grow(error)) {
    return false;
  }
  if (w.settings.regionEvery != 0 && w.steps % w.settings.regionEvery == 0 && !w.churnRegions(error)) {
    return false;
  }
  return true;
}

void WriteTable::close() { impl_->held.clear(); }

}  // namespace Sim

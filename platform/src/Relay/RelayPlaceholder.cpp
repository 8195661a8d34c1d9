// Placeholder until the queue library lands: nothing attaches.
#include "Relay/RelayReaderGeneric.h"

namespace Relay {

template <typename Slot>
RelayTable<Slot>::RelayTable(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, bool)
    : Beacon::Debuggable(handler),
      name_(root.path()),
      files_{{handler, root.fullPath("relay.1")}, {handler, root.fullPath("relay.2")}} {}

template <typename Slot>
RelayReaderGeneric<Slot>::RelayReaderGeneric(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root,
                                             bool writer)
    : RelayTable<Slot>(handler, root, writer) {}

template <typename Slot>
bool RelayReaderGeneric<Slot>::initialize() {
  return false;
}

template <typename Slot>
typename RelayReaderGeneric<Slot>::Header RelayReaderGeneric<Slot>::header(RelayTableId) const {
  return Header{};
}

template <typename Slot>
void RelayReaderGeneric<Slot>::formatIndividualRelayHeader(const Header&, std::ostream&) const {}

template <typename Slot>
void RelayReaderGeneric<Slot>::scan(std::ostream&, bool) {}

template class RelayTable<RelaySlot>;
template class RelayReaderGeneric<RelaySlot>;

}  // namespace Relay

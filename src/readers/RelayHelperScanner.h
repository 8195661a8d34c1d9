// The utility's queue reader: the library reader for the program's slot type.
#pragma once

#include "Relay/RelayReaderGeneric.h"

namespace Heron {

class RelayHelperScanner : public Relay::RelayReaderGeneric<Relay::RelaySlot> {
 public:
  using Relay::RelayReaderGeneric<Relay::RelaySlot>::RelayReaderGeneric;
  ~RelayHelperScanner() override = default;
};

}  // namespace Heron

// Restart identity of a writer: its pid (low 16 bits) and an instance number
// bumped at every restart on the same table. Shared layout: pid u16, then
// instanceId u16.
#pragma once

#include <cstdint>
#include <ostream>

namespace SharedMem {

struct EmberId {
  std::uint16_t pid;
  std::uint16_t instanceId;
};

static_assert(sizeof(EmberId) == 4, "EmberId is 4 bytes");

// Printed as "<pid>.<instanceId>", e.g. "4711.2".
std::ostream& operator<<(std::ostream& out, const EmberId& id);

}  // namespace SharedMem

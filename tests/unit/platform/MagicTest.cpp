// Every shared file opens with its magic: the 8 characters of its name, in
// file order.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Beacon/Magic.h"
#include "Quarry/QuarryFormat.h"
#include "Relay/RelayTable.h"
#include "SharedMem/Ember.h"
#include "SharedMem/OwnerFile.h"

namespace {

// The magic's bytes as they lie in a file (and in memory on this host).
std::string inFileOrder(unsigned long long magic) {
  char bytes[8];
  std::memcpy(bytes, &magic, sizeof bytes);
  return std::string(bytes, sizeof bytes);
}

TEST(Magic, EachFormatOpensWithItsText) {
  EXPECT_EQ(inFileOrder(SharedMem::OwnerFile::kMagic), "HRNOWNER");
  EXPECT_EQ(inFileOrder(SharedMem::EmberHeader::kMagic), "HRNEMBER");
  EXPECT_EQ(inFileOrder(Quarry::QuarryHeader::kMagic), "HRNQUARY");
  EXPECT_EQ(inFileOrder(Quarry::RegionHeader::kMagic), "HRNREGON");
  EXPECT_EQ(inFileOrder(Relay::RelayTable<Relay::RelaySlot>::kMagic), "HRNRELAY");
}

TEST(Magic, MagicsAreConstants) {
  // Evaluated by the compiler: a magic that is not 8 printable characters
  // would not compile here.
  constexpr unsigned long long owner = Beacon::Util::encodeMagic("HRNOWNER");
  static_assert(owner == SharedMem::OwnerFile::kMagic, "one text, one value");
  static_assert((owner & 0xFFU) == 'H' && (owner >> 56) == 'R', "first character in the low byte");
  EXPECT_EQ(inFileOrder(owner), "HRNOWNER");
}

}  // namespace

// Words of shared memory that another process changes at any moment: each
// one is loaded or stored as a single access of its own width.
//
// The formats are little-endian with every 64-bit field at a multiple of 8,
// and two 32-bit fields that must change together share one 64-bit word
// (the lower-addressed field in the low half). Loads must not write: a
// reader's mapping is read-only. So a 64-bit word is always accessed through
// an 8-byte aligned type: without the alignment a 32-bit compiler cannot
// prove it and calls the atomic library, whose misaligned path is a
// compare-and-swap, a write that faults on a read-only page. With it, and
// 8-byte atomics lock-free, a 32-bit build loads the word with one
// instruction (the build checks the generated code).
//
// Precondition of every call: `base + at` is aligned to the word's width.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Beacon {
namespace Shared {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the shared formats are little-endian");
static_assert(__atomic_always_lock_free(sizeof(std::uint64_t), nullptr),
              "a 64-bit shared word must load with one lock-free instruction");
static_assert(__atomic_always_lock_free(sizeof(std::uint32_t), nullptr), "32-bit shared words are lock-free");

// A 64-bit word of shared memory, 8-byte aligned in every build.
struct alignas(8) Word64 {
  std::uint64_t value;
};
static_assert(sizeof(Word64) == 8 && alignof(Word64) == 8, "a shared word is 8 bytes, 8-byte aligned");

struct alignas(4) Word32 {
  std::uint32_t value;
};
static_assert(sizeof(Word32) == 4 && alignof(Word32) == 4, "a 32-bit shared word is 4 bytes, 4-byte aligned");

inline const Word64* word64(const void* base, std::size_t at) {
  return static_cast<const Word64*>(static_cast<const void*>(static_cast<const char*>(base) + at));
}
inline Word64* word64(void* base, std::size_t at) {
  return static_cast<Word64*>(static_cast<void*>(static_cast<char*>(base) + at));
}
inline const Word32* word32(const void* base, std::size_t at) {
  return static_cast<const Word32*>(static_cast<const void*>(static_cast<const char*>(base) + at));
}
inline Word32* word32(void* base, std::size_t at) {
  return static_cast<Word32*>(static_cast<void*>(static_cast<char*>(base) + at));
}

inline std::uint64_t load64(const void* base, std::size_t at) {
  return __atomic_load_n(&word64(base, at)->value, __ATOMIC_ACQUIRE);
}
inline std::uint64_t load64Relaxed(const void* base, std::size_t at) {
  return __atomic_load_n(&word64(base, at)->value, __ATOMIC_RELAXED);
}
inline std::uint32_t load32(const void* base, std::size_t at) {
  return __atomic_load_n(&word32(base, at)->value, __ATOMIC_ACQUIRE);
}
inline std::uint32_t load32Relaxed(const void* base, std::size_t at) {
  return __atomic_load_n(&word32(base, at)->value, __ATOMIC_RELAXED);
}
inline void store64(void* base, std::size_t at, std::uint64_t value) {
  __atomic_store_n(&word64(base, at)->value, value, __ATOMIC_RELEASE);
}
inline void store64Relaxed(void* base, std::size_t at, std::uint64_t value) {
  __atomic_store_n(&word64(base, at)->value, value, __ATOMIC_RELAXED);
}
inline void store32(void* base, std::size_t at, std::uint32_t value) {
  __atomic_store_n(&word32(base, at)->value, value, __ATOMIC_RELEASE);
}
inline void store32Relaxed(void* base, std::size_t at, std::uint32_t value) {
  __atomic_store_n(&word32(base, at)->value, value, __ATOMIC_RELAXED);
}

// The halves of a word that pairs two 32-bit fields, and the pair itself.
constexpr std::uint32_t low(std::uint64_t word) { return static_cast<std::uint32_t>(word & 0xFFFFFFFFU); }
constexpr std::uint32_t high(std::uint64_t word) { return static_cast<std::uint32_t>(word >> 32); }
constexpr std::uint64_t pair(std::uint32_t lowHalf, std::uint32_t highHalf) {
  return static_cast<std::uint64_t>(lowHalf) | (static_cast<std::uint64_t>(highHalf) << 32);
}

}  // namespace Shared
}  // namespace Beacon

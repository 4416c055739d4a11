// The stores into the slots of user trace sets in shared memory, shared by
// the writers of local and remote entries (user_ring.h).
//
// Readers in other processes may copy a slot while it is being written and
// accept a mix of old and new bytes, so plain copies are what the design asks
// for. ThreadSanitizer cannot be told that such a race is intended; in its
// builds the copies are made of relaxed atomic word stores instead, which
// keeps its reports for races that are not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common/shared_fields.h"
#include "nodetrace/trace_layout.h"

namespace nt {

// Copies into and clears bytes of a slot.
#if defined(__SANITIZE_THREAD__)
inline void copyToSlot(std::uint8_t* dst, const void* source, std::size_t size) noexcept {
  const auto* src = static_cast<const std::uint8_t*>(source);
  std::size_t i = 0;
  for (; i + 4 <= size; i += 4) {
    std::uint32_t word;
    std::memcpy(&word, src + i, 4);
    storeShared(reinterpret_cast<std::uint32_t*>(dst + i), word);
  }
  for (; i < size; ++i) storeShared(dst + i, src[i]);
}

inline void zeroSlot(std::uint8_t* dst, std::size_t size) noexcept {
  for (std::size_t i = 0; i < size; ++i) storeShared(dst + i, std::uint8_t{0});
}
#else
inline void copyToSlot(std::uint8_t* dst, const void* src, std::size_t size) noexcept {
  std::memcpy(dst, src, size);
}

inline void zeroSlot(std::uint8_t* dst, std::size_t size) noexcept { std::memset(dst, 0, size); }
#endif

// Stores the first `length` characters of name into a slot's name field and
// zeros after them, `fieldBytes` bytes in all (length < fieldBytes <= 30).
#if (defined(__SSE2__) || defined(__ARM_NEON)) && !defined(__SANITIZE_THREAD__)
namespace slot_detail {
using Bytes16 = signed char __attribute__((vector_size(16)));
// The 32 bytes at p, which lie inside one 4096-byte block of memory: they
// never reach into a page the name does not touch. Those past the name are
// never used, so the sanitizers are not asked to look at them.
__attribute__((no_sanitize_address)) inline void load32(const char* p, Bytes16& low, Bytes16& high) noexcept {
  std::memcpy(&low, p, sizeof low);
  std::memcpy(&high, p + sizeof low, sizeof high);
}
}  // namespace slot_detail

inline void stampName(std::uint8_t* field, const char* name, std::size_t length, std::size_t fieldBytes) noexcept {
  using slot_detail::Bytes16;
  constexpr std::uintptr_t kBlock = 4096;
  if ((reinterpret_cast<std::uintptr_t>(name) & (kBlock - 1)) <= kBlock - 32) {
    // Two 16-byte loads, the bytes at and past `length` masked to zero,
    // then one store of the field (two overlapping 16-byte stores).
    Bytes16 low;
    Bytes16 high;
    slot_detail::load32(name, low, high);
    const Bytes16 kept = Bytes16{} + static_cast<signed char>(length);
    constexpr Bytes16 kLowIndex = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    constexpr Bytes16 kHighIndex = kLowIndex + 16;
    low &= static_cast<Bytes16>(kLowIndex < kept);
    high &= static_cast<Bytes16>(kHighIndex < kept);
    std::uint8_t bytes[32];
    std::memcpy(bytes, &low, sizeof low);
    std::memcpy(bytes + sizeof low, &high, sizeof high);
    if (fieldBytes == TRACE_FILE_NAME_LENGTH) {
      // The local entry's whole field: a copy of a size the compiler knows.
      std::memcpy(field, bytes, TRACE_FILE_NAME_LENGTH);
    } else {
      std::memcpy(field, bytes, fieldBytes);
    }
    return;
  }
  copyToSlot(field, name, length);
  zeroSlot(field + length, fieldBytes - length);
}
#else
inline void stampName(std::uint8_t* field, const char* name, std::size_t length, std::size_t fieldBytes) noexcept {
  copyToSlot(field, name, length);
  zeroSlot(field + length, fieldBytes - length);
}
#endif

}  // namespace nt

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

}  // namespace nt

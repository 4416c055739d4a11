// The ring bookkeeping of user trace sets in shared memory and the stores
// into their slots, shared by the writers of local and remote entries.
//
// The ring counters are advanced with atomic read-modify-write operations
// rather than separate loads and stores, so two writers of one set never
// claim the same slot; for a single writer the result is the same.
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

#include "nodetrace/trace_layout.h"
#include "trace/shared_access.h"

namespace nt {

// Claims the next slot of the ring: returns the slot the entry goes to and
// advances writeIndex past it. A ring of capacity 0 keeps its index.
inline std::uint16_t claimSlot(TraceSetStruct* descriptor, std::uint16_t capacity) noexcept {
  auto writeIndex = sharedRef(&descriptor->writeIndex);
  std::uint16_t used = writeIndex.load(std::memory_order_relaxed);
  if (capacity == 0) return used;
  while (!writeIndex.compare_exchange_weak(
      used, static_cast<std::uint16_t>((used + 1u) % capacity), std::memory_order_relaxed)) {
  }
  return used;
}

inline void countEntry(TraceSetStruct* descriptor, std::uint16_t capacity) noexcept {
  auto current = sharedRef(&descriptor->curentNumberEntries);
  std::uint16_t count = current.load(std::memory_order_relaxed);
  while (count < capacity &&
         !current.compare_exchange_weak(count, static_cast<std::uint16_t>(count + 1u),
                                        std::memory_order_relaxed)) {
  }
  sharedRef(&descriptor->totalNumberEntries).fetch_add(1u, std::memory_order_relaxed);
}

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

// Access to fields that other processes read and write concurrently.
//
// The shared memory is written without a lock by every process of the node;
// each field is a byte, a 16-bit or an aligned 32-bit word and must be read
// and written whole. std::atomic_ref with relaxed order gives exactly that
// (plain ldr/str on ARM and x86) and tells ThreadSanitizer what we mean.
// The records are packed but 4-byte aligned, so every field sits at its
// natural alignment and its address may be taken.
#pragma once

#include <atomic>

namespace nt {

template <typename T>
inline T loadShared(const T* field) noexcept {
  return std::atomic_ref<T>(*const_cast<T*>(field)).load(std::memory_order_relaxed);
}

template <typename T, typename V>
inline void storeShared(T* field, V value) noexcept {
  std::atomic_ref<T>(*field).store(static_cast<T>(value), std::memory_order_relaxed);
}

// For read-modify-write of a shared counter (fetch_add, compare-exchange).
template <typename T>
inline std::atomic_ref<T> sharedRef(T* field) noexcept {
  return std::atomic_ref<T>(*field);
}

}  // namespace nt

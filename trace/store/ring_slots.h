// Reading records that other processes write while we read them: whole
// copies of a shared record, and the address of a user set's slot checked
// against the mapping.
//
// Descriptors and slot headers in the shared memory are hostile input: a
// damaged descriptor may name a slot past the end of the mapping, over the
// header and the descriptor table, or at an odd address. Every slot address
// a writer, reader, search or dump uses comes from userSlot(), which refuses
// such slots instead of reaching for them (damage_policy.h).
#pragma once

#include <cstdint>
#include <cstring>

#include "common/shared_fields.h"
#include "nodetrace/nodetrace.h"
#include "trace/store/damage_policy.h"
#include "trace/store/startup.h"

namespace nt {

// A copy of a 4-byte aligned shared record (header, descriptor, entry
// header), taken word by word so that every field is read whole.
template <typename Record>
Record loadRecord(const Record* shared) noexcept {
  static_assert(sizeof(Record) % sizeof(std::uint32_t) == 0);
  constexpr std::size_t kWords = sizeof(Record) / sizeof(std::uint32_t);
  std::uint32_t words[kWords];
  const auto* source = reinterpret_cast<const std::uint32_t*>(shared);
  for (std::size_t i = 0; i < kWords; ++i) words[i] = loadShared(&source[i]);
  Record copy;
  std::memcpy(&copy, words, sizeof copy);
  return copy;
}

// getTraceEntrySize for the library's own callers: the contents length
// rounded up to 4, plus the 80-byte entry header.
inline constexpr std::uint32_t slotSizeFor(std::uint16_t maxLength) noexcept {
  return ((maxLength + 3u) & ~3u) + TRACE_ENTRY_HEADER_SIZE;
}
static_assert(slotSizeFor(128) == 208 && slotSizeFor(1600) == 1680 && slotSizeFor(1) == 84);

// The ring geometry of a set, read once from its descriptor.
struct Ring {
  std::uint16_t capacity = 0;    // maxNumberEntries
  std::uint16_t maxLength = 0;   // traceEntryContentsLength
  std::uint16_t writeIndex = 0;
  std::uint16_t current = 0;     // curentNumberEntries
  std::uint32_t dataOffset = 0;
  std::uint32_t slotSize = 0;    // getTraceEntrySize(maxLength)
};

inline Ring ringOf(const TraceSetStruct* descriptor) noexcept {
  Ring ring;
  ring.capacity = loadShared(&descriptor->maxNumberEntries);
  ring.maxLength = loadShared(&descriptor->traceEntryContentsLength);
  ring.writeIndex = loadShared(&descriptor->writeIndex);
  ring.current = loadShared(&descriptor->curentNumberEntries);
  ring.dataOffset = loadShared(&descriptor->dataOffset);
  ring.slotSize = slotSizeFor(ring.maxLength);
  return ring;
}

// Slot `index` of a user set in this process's mapping, or null when the
// process has no mapping or the slot is not reachable: outside the entry
// area of the mapping, or not word-aligned (a damaged dataOffset).
inline std::uint8_t* userSlot(const Ring& ring, std::uint32_t index) noexcept {
  if (g_process.base == nullptr) return nullptr;
  const std::int64_t offset =
      userSlotOffset(ring.dataOffset, ring.slotSize, index, g_process.entryAreaOffset, g_process.size);
  return offset < 0 ? nullptr : g_process.base + offset;
}

// Slot `index` of a user set's ring as a writer may fill it: an index inside
// the ring (slot 0 for a set without slots, whose entries go to its
// dataOffset) whose slot is reachable. A damaged writeIndex beyond the ring
// would write over the next set's region: refused until clearTraceSet
// starts the ring again.
inline std::uint8_t* ringSlot(const Ring& ring, std::uint32_t index) noexcept {
  const std::uint32_t slots = ring.capacity != 0 ? ring.capacity : 1u;
  return index < slots ? userSlot(ring, index) : nullptr;
}

// How many slots of a user set's descriptor the mapping holds from its
// dataOffset on (0 for a dataOffset it cannot serve).
inline std::uint32_t userSlotsInMapping(const TraceSetStruct& descriptor) noexcept {
  const std::uint32_t slotSize = getTraceEntrySize(descriptor.traceEntryContentsLength);
  if (g_process.base == nullptr ||
      userSlotOffset(descriptor.dataOffset, slotSize, 0, g_process.entryAreaOffset, g_process.size) < 0) {
    return 0;
  }
  return (g_process.size - descriptor.dataOffset) / slotSize;
}

// File offset of slot `index` of a set of the SRAM file, or -1 when the slot
// lies outside the set's region of the file.
inline off_t sramSlot(std::uint16_t setId, const Ring& ring, std::uint32_t index) noexcept {
  return sramSlotOffset(setId, ring.dataOffset, ring.slotSize, index);
}

}  // namespace nt

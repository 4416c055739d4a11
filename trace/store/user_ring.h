// The ring of a user trace set in shared memory: the one place where an
// entry is appended to it, by the entry writer and by the remote writer.
//
// One append claims the next slot and counts the entry, stores the contents,
// stamps the named fields of the entry header, numbers it with the node-wide
// sequence number and links it into the node-wide chain:
//
//   descriptor bytes 40..47:  writeIndex | curentNumberEntries | totalNumberEntries
//                             \______ one compare-exchange per entry ______/
//   slot writeIndex:  header fields (named ones only) | contents
//
// Atomic read-modify-write operations per entry, and why each one is there:
//   1. one compare-exchange of the descriptor's 64-bit counter word (its
//      three fields are adjacent and the word is 8-byte aligned in the
//      table): claims the slot, counts the entry and the set's total at
//      once, so two writers of one set never claim the same slot within a
//      round of the ring and neither count is lost;
//   2. one fetch_add of the node's totalNumberTraceEntries (node_sequence.h):
//      every writer of the node numbers its entries from it, so no two
//      entries share a sequence number;
//   3. one exchange of the node's newest-entry link (local entries only):
//      the entry becomes the newest and learns its predecessor in one step.
// Everything else is plain stores. A reader that copies a slot while it is
// written may see a mix of the old and the new entry, which readers accept.
//
// Only the named fields of the header are stored: the unused bytes 30-31,
// 41-43 and 70-71 of a slot keep whatever they hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common/shared_fields.h"
#include "common/test_points.h"
#include "nodetrace/trace_layout.h"
#include "trace/store/node_sequence.h"
#include "trace/store/ring_slots.h"
#include "trace/store/slot_writes.h"

namespace nt {

// The fields of an entry header that the writer gives; the ring adds the
// sequence number, the contents length and the link.
struct EntryFields {
  const char* fileName;  // base name; at most 29 characters are stored
  std::size_t fileNameLength;
  std::int32_t line;
  std::uint32_t pid;
  std::uint32_t tid;
  std::uint32_t severity;  // the low 8 bits are stored
  std::uint32_t category;
  TraceTimeStamp monotonicTime;  // network byte order
  TraceTimeStamp realTime;       // network byte order
};

// How the entry enters the node-wide chain. A local entry becomes the
// newest of the node; a remote record links to the newest entry but stays
// out of the chain, so the next local entry links past it.
enum class Link { kNewest, kBehindNewest };

namespace ring_detail {

static_assert(offsetof(TraceSetStruct, curentNumberEntries) == offsetof(TraceSetStruct, writeIndex) + 2);
static_assert(offsetof(TraceSetStruct, totalNumberEntries) == offsetof(TraceSetStruct, writeIndex) + 4);
static_assert(offsetof(TraceSetStruct, writeIndex) % 8 == 0 && sizeof(TraceSetStruct) % 8 == 0 &&
              TRACE_DESCRIPTOR_TABLE_OFFSET % 8 == 0);
static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free);

struct Counters {
  std::uint16_t writeIndex;
  std::uint16_t current;
  std::uint32_t total;
};

inline std::uint64_t wordOf(Counters c) noexcept {
  std::uint64_t word;
  std::memcpy(&word, &c, sizeof word);
  return word;
}

inline Counters countersOf(std::uint64_t word) noexcept {
  Counters c;
  std::memcpy(&c, &word, sizeof c);
  return c;
}

// The header's named fields, stored one by one into the slot.
// The sequence number is stored apart, just before the link (appendEntry).
inline void stampHeader(TraceEntryHeader* slot, const EntryFields& f, bool terminateName,
                        std::uint16_t contentsLength) noexcept {
  constexpr std::size_t kNameCharacters = TRACE_FILE_NAME_LENGTH - 1;  // 29
  auto* name = reinterpret_cast<std::uint8_t*>(slot->fileName);
  const std::size_t nameLength = f.fileNameLength < kNameCharacters ? f.fileNameLength : kNameCharacters;
  stampName(name, f.fileName, nameLength, terminateName ? TRACE_FILE_NAME_LENGTH : kNameCharacters);
  storeShared(&slot->line, f.line);
  storeShared(&slot->pid, f.pid);
  storeShared(&slot->severity, static_cast<std::uint8_t>(f.severity));
  storeShared(&slot->category, f.category);
  storeShared(&slot->tid, f.tid);
  storeShared(&slot->monotonicTime.seconds, f.monotonicTime.seconds);
  storeShared(&slot->monotonicTime.nanoseconds, f.monotonicTime.nanoseconds);
  storeShared(&slot->contentsLength, contentsLength);
  storeShared(&slot->realTime.seconds, f.realTime.seconds);
  storeShared(&slot->realTime.nanoseconds, f.realTime.nanoseconds);
}

// A test point of the append; nothing at all outside the test build.
inline void passPoint([[maybe_unused]] TestPoint point) noexcept {
#if defined(NODETRACE_TEST_POINTS)
  passTestPoint(point);
#endif
}

// The predecessor link of the slot, set and slot stored as one word.
inline void stampLink(TraceEntryHeader* slot, EntryLink previous) noexcept {
  static_assert(offsetof(TraceEntryHeader, prevTraceSetId) % 2 == 0);
  storeShared(&slot->prevTraceSetId, previous.traceSetId);
  storeShared(&slot->prevEntryIndex, previous.entryIndex);
}

}  // namespace ring_detail

// Claims the next slot of the ring and counts the entry (one
// compare-exchange, see above). The slot is checked before the counters
// move: a slot the mapping cannot serve (damage_policy.h) refuses the entry
// and nothing changes. A ring of capacity 0 keeps its index (its entries go
// to its dataOffset) and its current count; its total still grows.
struct Claim {
  std::uint8_t* slot = nullptr;  // null: refused
  std::uint16_t index = 0;
};

inline Claim claimSlot(TraceSetStruct* descriptor, const Ring& ring) noexcept {
  auto* field = reinterpret_cast<std::uint64_t*>(reinterpret_cast<std::uint8_t*>(descriptor) +
                                                 offsetof(TraceSetStruct, writeIndex));
  // The table and the snapshot of a SRAM set are 8-byte aligned; a
  // descriptor that is not cannot be advanced as one word.
  if (reinterpret_cast<std::uintptr_t>(field) % 8 != 0) return {};
  auto counters = sharedRef(field);
  std::uint64_t word = counters.load(std::memory_order_relaxed);
  for (;;) {
    ring_detail::Counters c = ring_detail::countersOf(word);
    std::uint8_t* slot = ringSlot(ring, c.writeIndex);
    if (slot == nullptr) return {};
    const std::uint16_t used = c.writeIndex;
    if (ring.capacity != 0) c.writeIndex = static_cast<std::uint16_t>((used + 1u) % ring.capacity);
    if (c.current < ring.capacity) ++c.current;
    ++c.total;
    if (counters.compare_exchange_weak(word, ring_detail::wordOf(c), std::memory_order_relaxed)) {
      return {slot, used};
    }
  }
}

// Appends one entry to the ring of a user set. storeContents(contents)
// stores the contents at the slot's byte 80 and returns the contentsLength
// to record. Returns false, with nothing changed, when the slot is refused.
// Inlined into each writer: the writer's stores and the ring's share one
// stack frame.
template <typename StoreContents>
[[gnu::always_inline]] inline bool appendEntry(TraceMemoryHeader* h, TraceSetStruct* descriptor, const Ring& ring,
                        std::uint16_t traceSetId, const EntryFields& fields, Link link,
                        StoreContents&& storeContents) noexcept {
  const bool local = link == Link::kNewest;
  const Claim claim = claimSlot(descriptor, ring);
  if (claim.slot == nullptr) return false;
  ring_detail::passPoint(local ? TestPoint::kUserSlotClaimed : TestPoint::kRemoteSlotClaimed);
  const std::uint16_t contentsLength = storeContents(claim.slot + TRACE_ENTRY_HEADER_SIZE);
  ring_detail::passPoint(local ? TestPoint::kUserContentsWritten : TestPoint::kRemoteContentsWritten);
  auto* slot = reinterpret_cast<TraceEntryHeader*>(claim.slot);
  // Local entries keep byte 29 of the name zero; a remote record leaves it.
  ring_detail::stampHeader(slot, fields, local, contentsLength);
  // The sequence number and the link live in the node header's first cache
  // line, which every writer of the node advances. Taking the number here,
  // just before the link, makes the two read-modify-writes hit that line
  // back to back: a writer on another core takes the line away once per
  // entry, not twice.
  storeShared(&slot->sequenceNumber, takeSequenceNumber(h));
  if (local) ring_detail::passPoint(TestPoint::kUserHeaderWritten);
  // The link comes last: an entry is published as the newest only once its
  // slot holds it.
  ring_detail::stampLink(slot, link == Link::kNewest ? linkNewest(h, {traceSetId, claim.index}) : newestLink(h));
  return true;
}

}  // namespace nt
